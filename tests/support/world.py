"""What the tests that run the programs share: a root of their own, the daemon on it, and clients that are processes.

The environment names the programs (VTD, VTCTL) and the directory with the sample world (EXAMPLES).
"""
import fcntl
import json
import os
import plistlib
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import traceback
import unittest

VTD, VTCTL, EXAMPLES = (os.environ[name] for name in ('VTD', 'VTCTL', 'EXAMPLES'))
sys.path.append(EXAMPLES)
from match import Connection  # noqa: E402  a client that this process can be itself

os.umask(0o022)  # a bundle that others may write has no entitlements


def property_list(content):
    """As the daemon writes it: without plistlib's declaration of a type, which takes another reader than usual."""
    lines = plistlib.dumps(content).splitlines(keepends=True)
    return b''.join(line for line in lines if not line.startswith(b'<!DOCTYPE'))


class Client:
    """A process with a connection of its own."""

    def __init__(self, process):
        self.process, self.pid = process, process.pid

    def ask(self, request, **keys):
        self.process.stdin.write(json.dumps({'request': request, **keys}).encode() + b'\n')
        self.process.stdin.flush()
        line = bytearray()
        deadline = time.monotonic() + 20
        while not line.endswith(b'\n'):  # nothing comes behind it before it is asked for
            about = select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))[0]
            assert about, f'no answer to "{request}"'
            more = os.read(self.process.stdout.fileno(), 1 << 20)
            assert more, 'the client has ended'
            line += more
        return json.loads(line)

    def found(self, rules={}, flags=0):
        """Forms by their identifiers."""
        return {form['identifier']: form for form in self.ask('match', rules=rules, flags=flags)['matches']}

    def uuids(self, *identifiers):
        found = self.found()
        return [{'$uuid': found[identifier]['uuid']} for identifier in identifiers]


class World:
    """world / 'state/x' is a path in it."""

    def __init__(self):
        self.root = os.path.realpath(tempfile.mkdtemp(prefix='vtd-test-'))
        name = os.path.basename(self.root)
        self.environment = dict(os.environ, HALVERN_ROOT=self.root, NOTIFY_SOCKET='@' + name)
        self.ready = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.ready.bind('\0' + name)  # in no directory, whose path could be too long for it
        self.begun = []
        self.log = open(self / 'log', 'w+b')
        self.daemon = None

    def __truediv__(self, name):
        return os.path.join(self.root, name)

    def start(self, *arguments):
        log = os.open(self / 'log', os.O_WRONLY | os.O_APPEND)
        self.daemon = subprocess.Popen([VTD, '-v', *arguments], env=self.environment, stderr=log)
        os.close(log)
        self.await_ready(self.daemon.pid)

    def await_ready(self, pid):
        """Until somebody says that the daemon is up; a failure at once when this process ends before."""
        ended = os.pidfd_open(pid)
        message = b''
        while message != b'READY=1':
            about = select.select([self.ready, ended], [], [], 60)[0]
            assert self.ready in about, 'the daemon has ended' if about else 'the daemon does not come up'
            message = self.ready.recv(100)
        os.close(ended)

    def kill_daemon(self):
        self.daemon.kill()
        self.daemon.wait()

    def end(self):
        """Ends what was begun and removes the directory. Returns all that the daemon has logged."""
        for process in self.begun:
            process.kill()
            process.communicate()
        if self.daemon:
            self.kill_daemon()
        logged = self.logged()
        for file in self.log, self.ready:
            file.close()
        shutil.rmtree(self.root)
        assert 'Sanitizer' not in logged, logged
        return logged

    def logged(self):
        self.log.seek(0)
        return self.log.read().decode(errors='replace')

    def take_lines(self, text=''):
        """What the daemon has logged since the last time, and only of that the lines with some text in them."""
        lines = (line.split(': ', 1)[1] for line in self.log.read().decode().splitlines())  # behind time and level
        return [line for line in lines if text in line]

    def write(self, name, content):
        """A file; a property list, unless the content is bytes. Whoever looks sees it whole."""
        path = self / name
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path + '.new', 'wb') as file:
            file.write(content if isinstance(content, bytes) else property_list(content))
        os.rename(path + '.new', path)
        return path

    def read(self, name):
        """What a file holds; nothing when there is none that can be read."""
        try:
            with open(self / name, 'rb') as file:
                return file.read()
        except OSError:
            return None

    def read_plist(self, name):
        return plistlib.loads(self.read(name))

    def install(self, bundle, extension=None, **info):
        """A bundle with a program, called by the stem of its path; with an extension it is a plug-in."""
        name = os.path.splitext(os.path.basename(bundle))[0]
        info = {'QFBundleIdentifier': name, 'QFBundleVersion': '1', 'QFBundleExecutable': 'run', **info}
        if extension is not None:
            info['KXExtension'] = {'KXExtensionProtocol': 'P', **extension}
        os.chmod(self.write(bundle + '/run', b'#!/bin/sh\n'), 0o755)
        self.write(bundle + '/Info.plist', info)
        return self / bundle

    def make_busy(self, identifier, content=None):
        """Makes this process busy, as doc/platform.md has it, as long as what is answered is open."""
        name = f'run/assertions/{identifier}/{os.getpid()}'
        file = open(self.write(name, (content or identifier).encode()), 'r+b')
        fcntl.lockf(file, fcntl.LOCK_EX)
        return file

    def vtctl(self, *arguments, **options):
        options = {'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE, **options}
        return subprocess.run([VTCTL, *arguments], env=self.environment, timeout=20, **options)

    def begin(self, *command, **options):
        self.begun.append(subprocess.Popen(command, env=self.environment, stdout=subprocess.PIPE,
                                           stderr=subprocess.PIPE, **options))
        return self.begun[-1]

    def client(self, program=VTCTL):
        return Client(self.begin(program, 'call', '-', stdin=subprocess.PIPE))

    def connect(self, service='halvern.velto.vtd'):
        """A client that is this process, however long the path of the root."""
        directory = os.open(self / 'run', os.O_PATH)
        try:
            return Connection(f'/proc/self/fd/{directory}/{service}')
        finally:
            os.close(directory)


class WorldTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.world = World()
        self.forked = set()
        self.addCleanup(self.end)

    def end(self):
        logged = self.world.end()
        if not self._outcome.success:
            print(f'The daemon of {self.id()} said:\n{logged}', file=sys.stderr)

    def needs(self, *command):
        """Skips the test where the machine lacks or refuses what it needs: where such a command fails."""
        ran = subprocess.run(['env', *command], capture_output=True)
        if ran.returncode != 0:
            self.skipTest(f'{command[0]} cannot be used here: {ran.stderr.decode()}')

    def eventually(self, condition, what, pause=0.01):
        deadline = time.monotonic() + 20
        while not condition():
            self.assertLess(time.monotonic(), deadline, what)
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
            except BaseException:
                traceback.print_exc()
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


def main():
    """Runs the tests of the program. Exit status 77 says that something was skipped, and that nothing failed."""
    result = unittest.main(exit=False).result
    sys.exit((77 if result.skipped else 0) if result.wasSuccessful() else 1)
