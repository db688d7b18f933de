"""What the tests that run the programs share: a root of their own, the daemon on it, and clients that are processes.

The environment names the programs (VTD, VTCTL) and the directory with the sample world (EXAMPLES).
"""
import fcntl
import json
import os
import plistlib
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

VTD, VTCTL, EXAMPLES = (os.environ[name] for name in ('VTD', 'VTCTL', 'EXAMPLES'))
os.umask(0o022)  # a bundle that others may write has no entitlements


def property_list(content):
    lines = plistlib.dumps(content).splitlines(keepends=True)
    return b''.join(line for line in lines if not line.startswith(b'<!DOCTYPE'))


class Client:
    """A process with a connection of its own."""

    def __init__(self, process):
        self.process, self.pid = process, process.pid

    def ask(self, request, **keys):
        self.process.stdin.write(json.dumps({'request': request, **keys}).encode() + b'\n')
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def found(self, flags=0):
        return {form['identifier']: form for form in self.ask('match', flags=flags)['matches']}

    def uuids(self, *identifiers):
        found = self.found()
        return [{'$uuid': found[identifier]['uuid']} for identifier in identifiers]


class World:
    """world / 'state/x' is a path in it."""

    def __init__(self):
        self.root = os.path.realpath(tempfile.mkdtemp(prefix='vtd-test-'))
        self.environment = dict(os.environ, HALVERN_ROOT=self.root, NOTIFY_SOCKET=self / 'ready')
        self.ready = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.ready.bind(self / 'ready')
        self.ready.settimeout(20)
        self.begun = []
        self.log = open(self / 'log', 'w+b')
        self.daemon = None

    def __truediv__(self, name):
        return os.path.join(self.root, name)

    def start(self, *arguments):
        log = os.open(self / 'log', os.O_WRONLY | os.O_APPEND)
        self.daemon = subprocess.Popen([VTD, '-v', *arguments], env=self.environment, stderr=log)
        os.close(log)
        while self.ready.recv(100) != b'READY=1':
            pass

    def kill(self):
        self.daemon.kill()
        self.daemon.wait()

    def end(self):
        for process in self.begun:
            process.kill()
            process.communicate()
        if self.daemon:
            self.kill()
        self.log.seek(0)
        said = self.log.read().decode(errors='replace')
        for file in self.log, self.ready:
            file.close()
        shutil.rmtree(self.root)
        assert 'Sanitizer' not in said, said

    def lines(self, text=''):
        """What the daemon has logged since the last time, or of that the lines with some text in them."""
        return [line for line in self.log.read().decode().splitlines() if text in line]

    def write(self, name, content):
        """A file; a property list, unless the content is bytes. Whoever looks sees it whole."""
        path = self / name
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path + '.new', 'wb') as file:
            file.write(content if isinstance(content, bytes) else property_list(content))
        os.rename(path + '.new', path)
        return path

    def install(self, bundle, extension=None, **info):
        """A bundle with a program, called by the stem of its path; with an extension it is a plug-in."""
        name = os.path.splitext(os.path.basename(bundle))[0]
        info = {'QFBundleIdentifier': name, 'QFBundleVersion': '1', 'QFBundleExecutable': 'run', **info}
        if extension is not None:
            info['KXExtension'] = {'KXExtensionProtocol': 'P', **extension}
        os.chmod(self.write(bundle + '/run', b'#!/bin/sh\n'), 0o755)
        self.write(bundle + '/Info.plist', info)
        return self / bundle

    def assertion(self, identifier, content=None):
        """Makes this process busy, as doc/platform.md has it, as long as what is answered is open."""
        name = f'run/assertions/{identifier}/{os.getpid()}'
        file = open(self.write(name, (content or identifier).encode()), 'r+b')
        fcntl.lockf(file, fcntl.LOCK_EX)
        return file

    def vtctl(self, *arguments, **options):
        options = {'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE, **options}
        return subprocess.run([VTCTL, *arguments], env=self.environment, timeout=20, **options)

    def begin(self, *arguments, program=VTCTL, **options):
        begun = subprocess.Popen([program, *arguments], env=self.environment, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, **options)
        self.begun.append(begun)
        return begun

    def client(self, program=VTCTL):
        return Client(self.begin('call', '-', program=program, stdin=subprocess.PIPE))


class WorldTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.world = World()
        self.forked = set()
        self.addCleanup(self.world.end)

    def eventually(self, holds, pause=0.01):
        deadline = time.monotonic() + 20
        while not holds():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(pause)

    def fork(self, work):
        """A child that has done some work, whose result it keeps until it is killed."""
        reader, writer = os.pipe()
        pid = os.fork()
        if pid == 0:
            try:
                kept = work()
                os.write(writer, b'done')
                signal.pause()
                del kept
            finally:
                os._exit(1)
        os.close(writer)
        self.forked.add(pid)
        self.addCleanup(self.kill, pid)
        self.assertEqual(os.read(reader, 10), b'done')
        os.close(reader)
        return pid

    def kill(self, pid):
        if pid in self.forked:
            self.forked.remove(pid)
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
