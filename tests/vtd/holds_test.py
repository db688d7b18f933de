"""Holds: the daemon, those who hold something, and those who look, are each a process of its own."""
import os
import signal
import time

from world import WorldTest, main

APPLICATION, PLUG_IN = 1, 2


class HoldsTest(WorldTest):
    def setUp(self):
        super().setUp()
        self.app = self.world.install('user/Applications/Trip.app')
        self.a, self.b = (self.world.install('user/Applications/Trip.app/PlugIns/' + name, {}) for name in 'ab')
        self.world.start('-c', '1')  # records are built anew all the time, and are equal
        self.holder, self.other = self.world.client(), self.world.client()

    def hold(self, *paths, flags=PLUG_IN):
        return self.holder.ask('lock', paths=list(paths), flags=flags)['uuids']

    def posts(self):
        return int(self.world.read('run/notify/halvern.velto.annotation-change') or 0)

    def test_a_hold_is_granted_or_refused_with_the_reason(self):
        bad_flags = 'invalid request format (unsupported hold flags)'
        for request, code, error in [
            ({'paths': [self.a, 1], 'flags': 2}, 4, 'invalid request format'),
            ({'paths': [self.a, '/x'], 'flags': 7}, 4, bad_flags),
            ({'paths': ['/x'], 'flags': 7}, 9, 'invalid path: /x'),
            ({'paths': [self.a, self.world.root], 'flags': 2}, 9, 'no plug-in at path:' + self.world.root),
            ({'paths': [self.a]}, 4, bad_flags),
            ({'uuids': 'no array', 'flags': 2}, 4, 'invalid request format'),
            ({'paths': [], 'flags': 3}, 0, ''),
            ({'paths': [self.world.root], 'flags': APPLICATION}, 0, ''),
            ({'paths': [self.app, self.a + '/../..'], 'flags': APPLICATION}, 0, ''),
        ]:
            with self.subTest(request):
                before = self.posts()
                reply = self.holder.ask('lock', **request)
                if code:
                    self.assertEqual(reply, {'errorcode': code, 'error': error})
                else:  # paths and flags beside tokens are not looked at
                    self.assertEqual(self.holder.ask('lock', **{**request, 'uuids': [reply['uuids']]}), {})
                self.assertEqual(self.posts() - before, 0 if code else 2)

    def test_a_hold_hides_its_plug_ins_from_everybody_until_all_are_released(self):
        self.assertEqual(set(self.other.found()), {'a', 'b'})
        one, both = self.hold(self.a), self.hold(self.a, self.b)
        self.assertEqual([*self.holder.found(), *self.other.found()], [])
        self.world.take_lines()
        tokens = ['no token', {'$uuid': '00000000-0000-4000-8000-000000000000'}, both, 5, both]
        self.assertEqual(self.holder.ask('lock', uuids=tokens), {})
        self.assertEqual(len(self.world.take_lines(f"releasing plug-in hold {both['$uuid']} at client's request")), 1)
        self.assertEqual(set(self.other.found()), {'b'})
        self.assertEqual(self.other.ask('lock', uuids=[one]), {}, 'who knows the token')
        self.assertEqual(set(self.holder.found()), {'a', 'b'})

    def test_a_busy_plug_in_keeps_its_application_from_being_held_until_its_process_ends(self):
        busy = self.fork(lambda: (self.world.make_busy('a'), self.world.make_busy('b', 'bx')))
        self.assertEqual(self.holder.ask('lock', paths=[self.app], flags=APPLICATION),
                         {'errorcode': 14, 'error': 'plug-ins are busy', 'conflicts': [{'ExtensionBundleIdentifier': 'a'}]})
        lines = self.world.take_lines()
        for said in 'hold rejected. Busy plug-ins:(a)', 'grevd reported incomplete bundle for plug-in b':
            self.assertTrue(any(line.endswith(said) for line in lines), said)
        self.hold(self.a)  # busy or not
        self.kill(busy)
        self.hold(self.app, flags=APPLICATION)
        self.assertEqual(set(self.other.found()), set())

    def test_the_holds_of_a_killed_process_go_within_milliseconds_though_its_child_keeps_the_socket(self):
        def holder(count):
            connection = self.world.connect()
            for _ in range(count):
                connection.call({'request': 'lock', 'version': 3, 'paths': [self.a, self.b], 'flags': PLUG_IN})
            if os.fork() == 0:
                time.sleep(3)
                os._exit(0)
            return connection

        for count, limit in (3, 10), (1000, 200):  # a sanitizer takes its share of a thousand lines in the log
            quickest = 1e9
            for _ in range(4):
                before = self.posts()
                pid = self.fork(lambda: holder(count))
                self.assertEqual((self.posts() - before, set(self.other.found())), (count, set()))
                start = time.monotonic()
                os.kill(pid, signal.SIGKILL)
                self.eventually(lambda: self.posts() >= before + 2 * count, 'all holds are gone', pause=0.0001)
                quickest = min(quickest, (time.monotonic() - start) * 1000)
                self.assertEqual((self.posts() - before, set(self.other.found())), (2 * count, {'a', 'b'}))
                self.assertEqual(len(self.world.take_lines(f' for dead client pid {pid}')), count)
            self.assertLess(quickest, limit, f'{count} holds')
            print(f'{count} holds are gone {quickest:.1f} ms after their process was killed')


if __name__ == '__main__':
    main()
