#!/usr/bin/env python3
"""What one hostile client or bundle costs everybody else: for each attack, another client's longest wait for a tiny request.

Usage: hostile.py [--vtd BINARY]... [--goal MS] [--patience S] [ROW...]     (script/bench hostile builds and runs it)

Several binaries are measured by turns. A wait above the patience is printed as such. Beside it stand the private memory that
the daemon had at most, and what it kept.
"""
import argparse
import contextlib
import os
import resource
import signal
import socket
import struct
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILT = os.path.join(ROOT, 'build/release/bin')
os.environ.setdefault('VTD', os.path.join(BUILT, 'vtd'))
os.environ.setdefault('VTCTL', os.path.join(BUILT, 'vtctl'))
os.environ.setdefault('EXAMPLES', os.path.join(ROOT, 'examples'))
sys.path.append(os.path.join(ROOT, 'tests/support'))
import world as worlds  # noqa: E402
from match import Connection, decode, encode, text  # noqa: E402

EVERY = 0.002  # seconds between the innocent client's requests
SETTLED = 0.3  # seconds after an attack in which its aftermath still counts


# --- Messages that no honest client sends

def dictionary(pairs):
    """Encoded, its entries in the order given."""
    body = b''.join(text(key) + value for key, value in pairs)
    return struct.pack('<BII', 9, 4 + len(body), len(pairs)) + body


def array(elements):
    body = b''.join(elements)
    return struct.pack('<BII', 8, 4 + len(body), len(elements)) + body


def request(name, **keys):
    """Encoded; keys that are bytes are encoded already."""
    keys = {'request': name, 'version': 3, **keys}
    return dictionary([(key, value if isinstance(value, bytes) else encode(value)) for key, value in keys.items()])


def uuid(text_form):
    return b'\x0a' + bytes.fromhex(text_form.replace('-', ''))


class Attacker:
    """A child process; what it does to the daemon is over when it says so, or when it is killed."""

    def __init__(self, work):
        self.reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(self.reader)
            status = 1
            try:
                work()
                status = 0
            except SystemExit:  # its connection was ended, which is one way to be served
                status = 0
            except BaseException as error:
                print(f'    attacker: {error!r}', file=sys.stderr)
            os.write(writer, b'.')
            if status == 0:
                with contextlib.suppress(BaseException):
                    signal.pause()
            os._exit(status)
        os.close(writer)

    def wait(self, seconds):
        readable = worlds.select.select([self.reader], [], [], seconds)[0]
        return bool(readable)

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.reader)


def play(world, *messages, connection=None):
    """One client that sends them all and then takes the replies."""
    peer = connection or world.connect()

    def send():
        for number, message in enumerate(messages):
            peer.send(3, number + 1, message)
    sender = threading.Thread(target=send, daemon=True)
    sender.start()
    for _ in messages:
        peer.receive()


class Innocent:
    """Asks for next to nothing, again and again, from a process of its own; tells the longest wait so far."""

    def __init__(self, world, connects):
        self.reader, writer = os.pipe()
        self.stop, stopped = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os._exit(self.ask(world, writer, self.stop, connects))
        os.close(writer)
        os.close(self.stop)
        self.stop = stopped

    @staticmethod
    def ask(world, writer, stop, connects):
        longest = 0.0
        tiny = request('match', rules={'KXExtensionIdentifier': 'p0'})
        with contextlib.suppress(BaseException):
            peer = world.connect()
            while not worlds.select.select([stop], [], [], EVERY)[0]:
                start = time.monotonic()
                if connects:
                    peer.socket.close()
                    peer = world.connect()
                peer.send(3, 1, tiny)
                while not worlds.select.select([peer.socket], [], [], 0.05)[0]:
                    os.write(writer, struct.pack('<d', time.monotonic() - start))
                peer.receive()
                longest = max(longest, time.monotonic() - start)
            os.write(writer, struct.pack('<d', -longest - 1e-9))
            return 0
        os.write(writer, struct.pack('<d', -1e9))
        return 1

    def finish(self, patience):
        """The longest wait in seconds; infinite when it was not served any more."""
        with contextlib.suppress(BrokenPipeError):  # it was turned away, and has said so
            os.write(self.stop, b'.')
        deadline, longest = time.monotonic() + patience, 0.0
        while time.monotonic() < deadline:
            if not worlds.select.select([self.reader], [], [], deadline - time.monotonic())[0]:
                longest = patience
                break
            told, = struct.unpack('<d', os.read(self.reader, 8))
            longest = max(longest, abs(told))
            if told < 0:
                break
        else:
            longest = max(longest, patience)
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.reader)
        os.close(self.stop)
        return longest


# --- The worlds

def plug_ins(world, count, extension=None, application=None, **info):
    """So many applications with a plug-in each, or one application with all of them."""
    for number in range(count):
        within = application or f'user/Applications/App{number}.app'
        if not os.path.exists(world / within):
            world.install(within)
        world.install(f'{within}/PlugIns/p{number}.appex', {'KXExtensionPointIdentifier': 'org.example.point', **(extension or {})},
                      **info)


def known(world):
    """UUIDs of what an honest client finds."""
    reply = world.connect().call({'request': 'match', 'version': 3, 'rules': {}, 'flags': 0})
    return [form['uuid'] for form in reply['matches']]


class Row:
    """One attack: what is installed first, and what is then done. Rows register themselves by their names."""

    all = {}

    def __init__(self, name, install=None, start=(), limit=None, connects=False):
        self.name, self.install, self.start, self.limit, self.connects = name, install, start, limit, connects
        Row.all[name] = self

    def __call__(self, attack):
        self.attack = attack
        return attack


def keys_descending(count):
    return dictionary([(f'key{number:06}', b'\x01\x01') for number in range(count, 0, -1)])


@Row('match: 90,000 keys in descending order')
def _(world):
    play(world, request('match', rules=keys_descending(60_000)))


@Row('annotate: such a dictionary as "election"', install=lambda world: plug_ins(world, 1))
def _(world):
    play(world, request('annotate', annotations=dictionary([('election', keys_descending(55_000))]),
                        uuids=array([uuid(one) for one in known(world)])))


TEXTS = {'KXExtensionAttributes': {'Shape': 'round', 'List': [f'value {number}' for number in range(400)]}}


@Row('match: unknown operator with 32 KB of control characters, 31 times', install=lambda world: plug_ins(world, 200, TEXTS))
def _(world):
    play(world, request('match', rules={'Shape': ['?' + '\x01' * 32_000] * 31}))


@Row('match: a pattern of 900 KB, array attributes', install=lambda world: plug_ins(world, 200, TEXTS))
def _(world):
    play(world, request('match', rules={'List': '?' + '\x01' * 900_000}))


@Row('match: 9 patterns of 100 KB of digits, array attributes', install=lambda world: plug_ins(
    world, 200, {'KXExtensionAttributes': {'List': ['0' * 1000 + str(number) for number in range(200)]}}))
def _(world):
    play(world, request('match', rules={'List': ['<' + '0' * 100_000 + str(number) for number in range(9)]}))


def chained(world):
    """A chain of links, each with a long way to the next."""
    directory = world / 'chain'
    world.install('chain/a', {'KXExtensionPointIdentifier': 'p'})
    for number in range(39):
        target = 'a/../' * 800 + (f'link{number + 1}' if number < 38 else 'a')
        os.symlink(target, os.path.join(directory, f'link{number}'))


for asked, keys in (('lock', {'flags': 1}), ('add', {})):
    def through_links(world, asked=asked, keys=keys):
        play(world, request(asked, paths=[world / 'chain/link0' + '/.' * number for number in range(300)], **keys))
    Row(f'{asked}: 300 paths through a chain of 39 long links', install=chained)(through_links)


def deep(world):
    os.makedirs(world / '/'.join(['deep'] + ['a'] * 490))


@Row('lock: 1,000 paths that are 490 deep', install=deep)
def _(world):
    path = world / '/'.join(['deep'] + ['a'] * 490)
    play(world, request('lock', paths=[path + '/.' * (number % 20) for number in range(900)], flags=1))


def restricted_host(world):
    plug_ins(world, 1, TEXTS)
    world.install('user/Applications/Host.app')
    program = world / 'user/Applications/Host.app/run'
    os.unlink(program)
    with open(worlds.VTCTL, 'rb') as source:
        os.chmod(world.write('user/Applications/Host.app/run', source.read()), 0o755)
    world.write('user/Applications/Host.app/Entitlements.plist', {
        'halvern.developer.velto.allowedplugins': {'List': [f'>zzz {number}' for number in range(5_000)] + ['value 399']}})


@Row('ready: one plug-in 40 times, a host restricted by 5,000 patterns', install=restricted_host)
def _(world):
    client = world.client(world / 'user/Applications/Host.app/run')
    client.ask('ready', uuids=[{'$uuid': known(world)[0]}] * 40)


for count in (1_500, 6_000):
    def same_point(world):
        play(world, request('match', rules=dictionary([('KXExtensionPointName', array([encode('p')] * 90_000))])))
    Row(f'match: 90,000 times the same point, {count:,} plug-ins',
        install=lambda world, count=count: plug_ins(world, count, {'KXExtensionPointIdentifier': 'p'}))(same_point)


def seven_bundles(world):
    plug_ins(world, 1)
    names = [f'org.example.a.rather.long.name.of.a.point.{number}' for number in range(8_500)]
    for number in range(7):
        world.install(f'elsewhere/Big{number}.app/PlugIns/big.plugin', KXExtensionPointName=names, filler='x' * 600_000,
                      KXExtension={'Multiple': {f'org.example.big{number}.{one}': {
                          'KXExtensionPointIdentifier': 'p', 'KXExtensionProtocol': 'P'} for one in range(200)}})


def add_all(world, directory):
    paths = []
    for top, directories, files in os.walk(world / directory):
        paths += [top] if 'Info.plist' in files and '/PlugIns/' in top else []
    peer = world.connect()
    for path in paths:
        peer.call({'request': 'add', 'version': 3, 'paths': [path]})


def add_all_and_match(world):
    add_all(world, 'elsewhere')
    for _ in range(3):
        play(world, request('match', rules={'KXExtensionPointName': 'org.example.point'}))
        play(world, request('match', rules={}))


@Row('match: seven added bundles of 200 plug-ins with 8,500 point names', install=seven_bundles)
def _(world):
    add_all_and_match(world)


def seven_within(world):
    """As many plug-ins as a bundle's description may be multiplied by, and lists as long as they may be."""
    plug_ins(world, 1)
    names = [f'org.example.point.{number}' for number in range(512)]
    for number in range(7):
        world.install(f'elsewhere/Big{number}.app/PlugIns/big.plugin', KXExtensionPointName=names, KXExtension={'Multiple': {
            f'org.example.big{number}.{one}': {'KXExtensionPointIdentifier': 'p', 'KXExtensionProtocol': 'P'} for one in range(100)}})


@Row('match: seven added bundles of 100 plug-ins with 512 point names, just within the bounds', install=seven_within)
def _(world):
    add_all_and_match(world)


def extension_of(size, character='x'):
    return encode({'kept': character * size})


@Row('annotate: 230 plug-ins with 64 KiB each', install=lambda world: plug_ins(world, 230))
def _(world):
    play(world, request('annotate', annotations=dictionary([('extension', extension_of(65_000))]),
                        uuids=array([uuid(one) for one in known(world)])))


@Row('annotate: 64 KiB that take 1.2 MB as stored, 30 plug-ins', install=lambda world: plug_ins(world, 30))
def _(world):
    grown = dictionary([('kept', array([b'\x08' + struct.pack('<II', 4, 0)] * 7_000))])
    play(world, request('annotate', annotations=dictionary([('extension', grown)]), uuids=array([uuid(one) for one in known(world)])))


def elected_automatically(count, key=None):
    def install(world):
        plug_ins(world, count)
        rights = {'halvern.developer.auto-elect-plugin': True}
        for number in range(count):
            if key:
                rights['halvern.developer.replace-plugin'] = key(number)
            world.write(f'user/Applications/App{number}.app/PlugIns/p{number}.appex/Entitlements.plist', rights)
    return install


@Row('match: 265 plug-ins elected under keys of 1 MB', install=elected_automatically(
    265, lambda number: f'{number}' + 'k' * 1_000_000))
def _(world):
    play(world, request('match', rules={}))


@Row('match: 150 plug-ins elected under keys just within the bounds', install=elected_automatically(
    150, lambda number: f'{number}' + 'k' * 1_000))
def _(world):
    play(world, request('match', rules={}))


@Row('match: 3,000 plug-ins elected at the first discovery', install=elected_automatically(3_000))
def _(world):
    play(world, request('match', rules={}))


def one_elsewhere(world):
    world.install('elsewhere/One.app/PlugIns/one.plugin', {'KXExtensionPointIdentifier': 'p'})


@Row('add: one plug-in 10,000 times', install=one_elsewhere)
def _(world):
    play(world, request('add', paths=[world / 'elsewhere/One.app/PlugIns/one.plugin'] * 10_000))


def one_beside(world):
    plug_ins(world, 10_000)
    one_elsewhere(world)


@Row('add, remove: one plug-in 100 times, beside 10,000', install=one_beside)
def _(world):
    play(world, *[request(name, paths=[world / 'elsewhere/One.app/PlugIns/one.plugin']) for name in ('add', 'remove') * 100])


def hundred_beside(world):
    plug_ins(world, 10_000)
    for number in range(100):
        world.install(f'elsewhere/One.app/PlugIns/one{number}.plugin', {'KXExtensionPointIdentifier': 'p'})


@Row('add: 100 plug-ins in one request, beside 10,000', install=hundred_beside)
def _(world):
    play(world, request('add', paths=[world / f'elsewhere/One.app/PlugIns/one{number}.plugin' for number in range(100)]))


@Row('annotate: one plug-in 60,000 times', install=lambda world: plug_ins(world, 1))
def _(world):
    play(world, request('annotate', annotations={'election': 1}, uuids=array([uuid(known(world)[0])] * 60_000)))


@Row('match: 90,000 rules that something is absent', install=lambda world: plug_ins(world, 200))
def _(world):
    rules = dictionary([(f'{number}', b'\x01\x00') for number in range(69_000)])
    play(world, request('match', rules=rules))


@Row('access: one plug-in 60,000 times', install=lambda world: plug_ins(world, 1))
def _(world):
    play(world, request('access', uuids=array([uuid(known(world)[0])] * 60_000)))


@Row('access: 12 clients that do not read 60,000 tokens', install=lambda world: plug_ins(world, 1))
def _(world):
    peers = [world.connect() for _ in range(12)]
    message = request('access', uuids=array([uuid(known(world)[0])] * 60_000))
    for peer in peers:
        peer.send(3, 1, message)
    time.sleep(2)


def host_with_large_info(world, filler=25_000):
    world.install('user/Applications/Host.app', Filler=[f'value {number}' for number in range(filler)])
    program = world / 'user/Applications/Host.app/run'
    os.unlink(program)
    with open(os.path.realpath(sys.executable), 'rb') as source:
        os.chmod(world.write('user/Applications/Host.app/run', source.read()), 0o755)


@Row('connect: 400 idle connections of a host with an Info.plist just within the bounds',
     install=lambda world: host_with_large_info(world, 7_000))
@Row('connect: 400 idle connections of a host with an Info.plist of 1 MB', install=host_with_large_info)
def _(world):
    script = '\n'.join([
        'import os, sys, time', f'sys.path[:0] = {sys.path!r}', 'from match import Connection',
        f'os.chdir({world / "run"!r})', 'kept = [Connection("halvern.velto.vtd") for _ in range(400)]',
        'for one in kept: one.call({"request": "match", "version": 3, "rules": {}, "flags": 0})', 'print("done", flush=True)',
        'time.sleep(1000)'])
    world.environment['PYTHONHOME'] = sys.prefix
    process = world.begin(world / 'user/Applications/Host.app/run', '-c', script, stdin=worlds.subprocess.DEVNULL)
    if process.stdout.readline() != b'done\n':
        raise RuntimeError(process.stderr.read().decode())


WITHIN = {'KXExtensionAttributes': {f'List{one}': [f'value {number}' for number in range(512)] for one in range(12)}}


@Row('match: 150 bundles with lists just within the bounds', install=lambda world: plug_ins(world, 150, WITHIN))
def _(world):
    play(world, request('match', rules={}), request('match', rules={}))


LISTS = {'KXExtensionAttributes': {f'List{one}': [f'value {number}' for number in range(500)] for one in range(20)}}


@Row('match: 150 bundles with large lists', install=lambda world: plug_ins(world, 150, LISTS))
def _(world):
    play(world, request('match', rules={}), request('match', rules={}))


@Row('match: the same, not read', install=lambda world: plug_ins(world, 150, LISTS))
def _(world):
    peers = [world.connect() for _ in range(8)]
    for peer in peers:
        for number in range(10):
            peer.send(3, number + 1, request('match', rules={}))
    time.sleep(2)


@Row('lock: the death of a client with 200,000 holds', install=lambda world: plug_ins(world, 1))
def _(world):
    def hold():
        peer = world.connect()
        message = request('lock', paths=[], flags=2)
        for _ in range(2_000):
            peer.socket.sendall(b''.join(struct.pack('<IBBHQ', 12 + len(message), 3, 0, 0, 1 + one) + message for one in range(100)))
            for _ in range(100):
                peer.receive()
    holder = Attacker(hold)
    holder.wait(60)
    holder.end()
    while b'is dead' not in world.read('log'):
        time.sleep(0.1)


def idle(world, processes, connections, service='halvern.velto.vtd', use=lambda peer: None):
    def hold():
        kept = []
        with contextlib.suppress(BaseException):
            for _ in range(connections):
                kept.append(world.connect(service))
                use(kept[-1])
        signal.pause()
    for _ in range(processes):
        Attacker(hold)
    time.sleep(2)


for limit, processes, connections in ((64, 1, 60), (85, 1, 60), (256, 1, 240), (1_024, 1, 900), (1_024, 4, 300), (20_000, 4, 4_000)):
    def hold_idle(world, processes=processes, connections=connections):
        idle(world, processes, connections)
    Row(f'connect: {processes} processes with {connections} idle each, {limit:,} descriptors', limit=limit, connects=True)(hold_idle)


@Row('open: replies with descriptors that are never read, 1,024 descriptors', limit=1_024, connects=True, install=lambda world: plug_ins(world, 1))
def _(world):
    token = issued_token(world)
    path = token.split(';')[2].encode() + b'/Info.plist'

    def use(peer):
        handle = peer.call({'request': 'consume', 'token': token})['handle']
        handle = struct.pack('<Bq', 2, handle)
        data = b'\x06' + struct.pack('<I', len(path)) + path
        message = dictionary([('request', encode('open')), ('handle', handle), ('path', data)])
        peer.socket.setblocking(False)
        for number in range(200):
            peer.socket.send(struct.pack('<IBBHQ', 12 + len(message), 3, 0, 0, 1 + number) + message)
    idle(world, 4, 20, 'halvern.velto.vtd.sandbox', use)


def issued_token(world):
    message = request('access', uuids=array([uuid(known(world)[0])]))
    peer = world.connect()
    peer.send(3, 1, message)
    return decode(peer.receive()[2])[0]['extensions'][0]


@Row('connect: two processes that connect and close without pause, 64 descriptors', limit=64, connects=True)
@Row('connect: two processes that connect and close without pause, 256 descriptors', limit=256, connects=True)
@Row('connect: two processes that connect and close without pause, 1,024 descriptors', limit=1_024, connects=True)
@Row('connect: two processes that connect and close without pause', connects=True)
def _(world):
    def storm():
        directory = os.open(world / 'run', os.O_PATH)
        address = f'/proc/self/fd/{directory}/halvern.velto.vtd'
        while True:
            with socket.socket(socket.AF_UNIX) as one:
                with contextlib.suppress(OSError):
                    one.connect(address)
    storms = [Attacker(storm) for _ in range(2)]
    time.sleep(3)
    for one in storms:
        one.end()


def replacing(count, names):
    def install(world):
        plug_ins(world, count)
        for number in range(count):
            world.write(f'user/Applications/App{number}.app/PlugIns/p{number}.appex/Entitlements.plist',
                        {'halvern.developer.replace-plugin': [f'no.such.{number}.{one}' for one in range(names)]})
    return install


@Row('match: 1,000 plug-ins that replace 500 names each', install=replacing(1_000, 500))
@Row('match: 1,000 plug-ins that replace 200 names each', install=replacing(1_000, 200))
def _(world):
    play(world, *[request('match', rules={})] * 3)


def refused(world):
    for number in range(30):
        plug_ins(world, 1)
        world.install(f'user/Applications/Bad{number}.app')
        world.install(f'user/Applications/Bad{number}.app/PlugIns/bad.appex', {'KXExtensionPointIdentifier': 'nowhere'}, Filler='x' * 1_000_000)


@Row('match: 30 refused bundles of 1 MB, ten times', install=refused)
def _(world):
    play(world, *[request('match', rules={})] * 10)


def refused_within(world):
    plug_ins(world, 1)
    for number in range(30):
        world.install(f'user/Applications/Bad{number}.app')
        world.install(f'user/Applications/Bad{number}.app/PlugIns/bad.appex', {'KXExtensionPointIdentifier': 'nowhere'},
                      Filler='x' * 250_000)


@Row('match: 30 refused bundles just within the bounds, ten times', install=refused_within)
def _(world):
    play(world, *[request('match', rules={})] * 10)


# --- Measuring

def private_memory(pid):
    with open(f'/proc/{pid}/status') as file:
        fields = dict(line.split(':', 1) for line in file)
    return int(fields['RssAnon'].split()[0]) / 1024  # MiB


class Watcher(threading.Thread):
    """The most private memory that a process had."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid, self.most, self.over = pid, 0.0, threading.Event()

    def run(self):
        with contextlib.suppress(OSError, KeyError):
            while not self.over.wait(0.005):
                self.most = max(self.most, private_memory(self.pid))


def measure(row, vtd, patience):
    """(longest wait in seconds, most memory, kept memory in MiB)"""
    worlds.VTD = vtd
    world = worlds.World()
    attacker = innocent = None
    try:
        (row.install or (lambda world: None))(world)
        with lowered(row.limit):
            world.start(*row.start)
        # What the daemon does behind its first answers is not the attacker's: a "remove" comes behind that.
        world.connect().call({'request': 'remove', 'version': 3, 'paths': [world / 'nothing']})
        time.sleep(0.5)
        watcher = Watcher(world.daemon.pid)
        watcher.start()
        innocent = Innocent(world, row.connects)
        attacker = Attacker(lambda: (os.setpgid(0, 0), row.attack(world)))
        attacker.wait(patience)
        time.sleep(SETTLED)
        longest = innocent.finish(patience)
        watcher.over.set()
        watcher.join()
        return longest, watcher.most, private_memory(world.daemon.pid)
    finally:
        if attacker:
            with contextlib.suppress(OSError):
                os.killpg(attacker.pid, signal.SIGKILL)
            attacker.end()
        world.kill_daemon()
        world.end()


@contextlib.contextmanager
def lowered(limit):
    """The limit on descriptors of what is started meanwhile."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    if limit:
        # The daemon raises its own limit as far as it goes: the hard one counts. It cannot be raised again here.
        old = worlds.subprocess.Popen
        worlds.subprocess.Popen = lambda command, **options: old(
            ['prlimit', f'--nofile={limit}:{limit}', *command], **options)
        try:
            yield
        finally:
            worlds.subprocess.Popen = old
    else:
        yield
    assert resource.getrlimit(resource.RLIMIT_NOFILE) == before


def shown(seconds, patience):
    if seconds > 1e6:
        return 'turned away'
    return f'> {patience:.0f} s' if seconds >= patience else f'{seconds * 1000:.0f} ms'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--vtd', action='append', help='a daemon to measure; several are measured by turns')
    parser.add_argument('--goal', type=float, default=60, help='milliseconds (60)')
    parser.add_argument('--patience', type=float, default=30, help='seconds after which nobody waits any more (30)')
    parser.add_argument('rows', nargs='*', metavar='ROW', help='a part of a row\'s name; default: all')
    options = parser.parse_args()
    binaries = options.vtd or [os.path.join(BUILT, 'vtd')]
    chosen = [row for row in Row.all.values() if not options.rows or any(part in row.name for part in options.rows)]
    width = max(len(row.name) for row in chosen)
    print(f"{'attack':{width}}" + '  longest wait   memory, kept (MiB)' * len(binaries), flush=True)
    missed = 0
    for row in chosen:
        cells = ''
        for vtd in binaries:
            longest, most, kept = measure(row, vtd, options.patience)
            missed += vtd == binaries[-1] and longest * 1000 > options.goal
            cells += f'  {shown(longest, options.patience):>12}   {most:8.0f} {kept:8.0f}'
        print(f'{row.name:{width}}{cells}', flush=True)
    print(f'{missed} of {len(chosen)} rows above {options.goal:.0f} ms')
    return 1 if missed else 0


if __name__ == '__main__':
    sys.exit(main())
