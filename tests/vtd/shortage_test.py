"""Whoever holds most makes room: with hardly a descriptor left a newcomer is served, and what it chooses is saved."""
import os
import resource
import struct
import subprocess

from world import VTD, WorldTest, main
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

    def test_watches_that_were_not_to_be_had_are_asked_for_again(self):
        instances, watches = '/proc/sys/user/max_inotify_instances', '/proc/sys/user/max_inotify_watches'
        self.needs('unshare', '-Ur', 'sh', '-c', f'echo 0 >{instances}')
        limited = f'echo 0 >{instances} && echo 1 >{watches} && exec "$0" -v'
        with open(self.world / 'log', 'ab') as log:  # in a user namespace, which has limits of its own
            self.world.daemon = subprocess.Popen(['unshare', '-Ur', 'sh', '-c', limited, VTD],
                                                 env=self.world.environment, stderr=log)
        pid = str(self.world.daemon.pid)
        self.world.await_ready(self.world.daemon.pid)
        client = self.world.client()
        lift = ['nsenter', '-t', pid, '-U', '--preserve-credentials', 'sh', '-c', 'echo 100000 >"$0"']

        def holds_watches():
            return any(os.readlink(f'/proc/{pid}/fd/{fd}').endswith('inotify') for fd in os.listdir(f'/proc/{pid}/fd'))

        for name, condition in ('polled', lambda: 'polled' in client.found()), ('few', holds_watches), \
                ('watched', lambda: self.world.take_lines('are watched again')):
            self.world.install('system/PlugIns/' + name, {})
            self.eventually(condition, name)
            subprocess.run([*lift, {'polled': instances}.get(name, watches)], check=True)
        self.eventually(lambda: set(client.found()) == {'polled', 'few', 'watched'}, 'it is noticed')


if __name__ == '__main__':
    main()
