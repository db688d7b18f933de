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
    def slowest(self, client):
        """All but the slowest one of a hundred requests take at most so many seconds."""
        times = []
        for _ in range(500):
            start = time.monotonic()
            self.assertEqual(len(client.call({'request': 'match', 'version': 3, 'rules': {}, 'flags': 0})['matches']), 2)
            times.append(time.monotonic() - start)
        return sorted(times)[-len(times) // 100]

    def test_a_hundred_clients_that_name_paths_there_delay_nobody(self):
        self.world.install('system/PlugIns/a', {})
        later = self.world.install('system/elsewhere/later', {})
        self.world.start()
        client = self.world.connect()
        self.assertEqual(client.call({'request': 'add', 'version': 3, 'paths': [later]}), {})
        idle = min(self.slowest(client) for _ in range(3))
        held = self.world / 'held'
        mount_unanswering(self, held)

        def name_paths():
            connection = self.world.connect()
            for request in 'lock', 'add', 'remove', 'match':
                connection.send(3, 1, encode({'request': request, 'version': 3, 'paths': [held + '/x/y'], 'flags': 2}))
            return connection
        clients = [self.fork(name_paths) for _ in range(100)]
        self.eventually(lambda: self.slowest(client) < 2 * idle + 0.001, 'the others hold it up')
        for pid in clients:
            self.kill(pid)

        # Nothing there is taken on; what was registered before stays as it was known when its place is taken.
        def ask(request, path):
            return client.call({'request': request, 'version': 3, 'paths': [path], 'flags': 2}).get('error')
        self.assertEqual(ask('add', held), 'unable to register plug-in at ' + held)
        mount_unanswering(self, later)
        os.utime(os.path.dirname(later))  # the registry looks again
        self.assertEqual(ask('add', later), 'unable to register plug-in at ' + later)
        self.assertEqual(ask('lock', later), None)
        self.assertEqual(ask('remove', later), None)


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
