"""File systems that never answer hold up who names what lies on them, and nobody else."""
import ctypes
import os
import struct
import sys
import time

from world import WorldTest, main
from match import encode  # found by the words of the world

CLONE_NEWNS, MS_PRIVATE_ALL, MNT_DETACH = 0x20000, 0x44000, 2
INIT_REPLY = struct.pack('<IIIIHHIIHHI28x', 7, 31, 65536, 0, 12, 10, 65536, 1, 1, 0, 0)
libc = ctypes.CDLL(None, use_errno=True)


def mount(source, at, kind, flags, options):
    if libc.mount(source, at.encode(), kind, flags, options) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), at)


def mount_unanswering(test, at):
    """A file system of this process's own, which takes no request but the first. It goes with the test."""
    os.makedirs(at, exist_ok=True)
    device = os.open('/dev/fuse', os.O_RDWR)
    test.addCleanup(lambda: (os.close(device), libc.umount2(at.encode(), MNT_DETACH)))
    mount(b'hang', at, b'fuse.hang', 0, f'fd={device},rootmode=40000,user_id=0,group_id=0,allow_other'.encode())
    unique, = struct.unpack_from('<Q', os.read(device, 1 << 17), 8)
    os.write(device, struct.pack('<IiQ', 16 + len(INIT_REPLY), 0, unique) + INIT_REPLY)


class UnansweredTest(WorldTest):
    def slowest(self):
        """All but the slowest one of a hundred requests take at most so many seconds."""
        times = []
        for _ in range(500):
            start = time.monotonic()
            self.assertEqual(len(self.client.call({'request': 'match', 'version': 3, 'rules': {}, 'flags': 0})['matches']), 1)
            times.append(time.monotonic() - start)
        return sorted(times)[-len(times) // 100]

    def setUp(self):
        super().setUp()
        self.world.install('system/PlugIns/a', {})
        self.world.start()
        self.client = self.world.connect()
        self.held = self.world / 'held'
        mount_unanswering(self, self.held)

    def ask(self, request, path):
        return self.client.call({'request': request, 'version': 3, 'paths': [path], 'flags': 2}).get('error')

    def test_a_hundred_clients_that_name_paths_there_delay_nobody(self):
        def name_paths():
            connection = self.world.connect()
            for request in 'lock', 'add', 'remove', 'match':
                connection.send(3, 1, encode({'request': request, 'version': 3, 'paths': [self.held + '/x/y'], 'flags': 2}))
            return connection
        alone, beside = [], []  # by turns: what else the machine does falls on both
        for _ in range(5):
            alone.append(self.slowest())
            clients = [self.fork(name_paths) for _ in range(100)]
            beside.append(self.slowest())
            for pid in clients:
                self.kill(pid)
        self.assertLess(min(beside), 2 * min(alone) + 0.001, 'the others hold it up')
        # What they left behind in it has an end, and the ways of others are still gone.
        self.assertLess(len(os.listdir(f'/proc/{self.world.daemon.pid}/task')), 100)
        os.symlink(self.held, self.world / 'link')
        self.assertEqual(self.ask('lock', self.world / 'link/x'), 'invalid path: ' + self.world / 'link/x')
        os.symlink('PlugIns', self.world / 'system/link')
        self.assertEqual(self.ask('lock', self.world / 'system/link/../link/a'), None)

    def test_nothing_there_is_taken_on_and_what_was_known_stays_as_it_was(self):
        later = self.world.install('system/elsewhere/later', {})
        self.assertEqual(self.ask('add', later), None)
        self.assertEqual(self.ask('add', self.held), 'unable to register plug-in at ' + self.held)
        mount_unanswering(self, later)
        os.utime(os.path.dirname(later))  # the registry looks again
        self.assertEqual(self.ask('add', later), 'unable to register plug-in at ' + later)
        self.assertEqual(self.ask('lock', later), None)
        self.assertEqual(self.ask('remove', later), None)


if __name__ == '__main__':
    try:
        if libc.unshare(CLONE_NEWNS) != 0:
            raise OSError(ctypes.get_errno(), 'no namespace for mounts')
        mount(b'none', '/', None, MS_PRIVATE_ALL, None)
        os.close(os.open('/dev/fuse', os.O_RDWR))
    except OSError as lacking:
        print('skipped:', lacking)
        sys.exit(77)
    main()
