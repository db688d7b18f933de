"""Whoever holds most makes room: with hardly a descriptor left a newcomer is served, and what it chooses is saved."""
import resource
import struct

from world import WorldTest, main
from match import text

SANDBOX = 'halvern.velto.vtd.sandbox'


class ShortageTest(WorldTest):
    def take(self, count, service, work=lambda connection: None):
        """Connections, as many as the daemon lets be."""
        taken = []
        for _ in range(count):
            try:
                taken.append(self.world.connect(service))
                work(taken[-1])
            except (OSError, SystemExit):
                pass
        return taken

    def leave_opens_unread(self, connection):
        handle = connection.call({'request': 'consume', 'token': self.token})['handle']
        entries = [('handle', struct.pack('<Bq', 2, handle)), ('path', b'\x06' + text(self.path)),
                   ('request', b'\x05' + text('open'))]
        body = b''.join(text(key) + value for key, value in entries)
        for reply_id in range(2, 320):
            connection.send(3, reply_id, struct.pack('<BII', 9, 4 + len(body), len(entries)) + body)

    def test_there_is_room_for_a_newcomer_and_a_save_whatever_others_hold(self):
        self.world.install('user/Applications/A.app')
        plug_in = self.world.install('user/Applications/A.app/PlugIns/P.appex', {'KXExtensionPointIdentifier': 'x'})
        self.path = plug_in + '/Info.plist'
        self.world.start()
        asking = self.world.client()
        uuids = asking.uuids('P')
        self.token = asking.ask('access', uuids=uuids)['extensions'][0]
        election = 0
        for limit in 1024, 256, 64:  # never raised again
            resource.prlimit(self.world.daemon.pid, resource.RLIMIT_NOFILE, (limit, limit))
            for name, work in [
                ('idle connections', lambda: self.take(limit, 'halvern.velto.vtd')),
                ('idle connections to the sandbox service', lambda: self.take(limit, SANDBOX)),
                ('files in replies that are not read', lambda: self.take(4, SANDBOX, self.leave_opens_unread)),
            ]:
                with self.subTest(name, limit=limit):
                    holders = [self.fork(work) for _ in range(2)]
                    election = 3 - max(election, 1)
                    answer = self.world.client().ask('annotate', uuids=uuids, annotations={'election': election})
                    self.assertEqual(answer, {})
                    stored = self.world.read_plist('state/halvern.velto/Annotations')
                    self.assertIn(f"'election': {election}", str(stored))
                    for holder in holders:
                        self.kill(holder)


if __name__ == '__main__':
    main()
