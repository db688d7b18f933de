"""How the daemon is started, and what it answers to whom."""
import os
import subprocess

from world import VTD, World, WorldTest, main
from match import encode  # of the examples, which world has found


class ServerTest(WorldTest):
    def connect(self):
        connection = self.world.connect()
        self.addCleanup(connection.socket.close)
        return connection

    def test_what_is_not_understood_is_answered_with_the_reason(self):
        self.world.start()
        connection = self.connect()
        version, long = 'unsupported protocol version {} (current 3)', '/' + 'x' * 5000
        malformed = 'invalid request format'
        for request, code, answer in [  # the text of an error, or the whole reply
            ({'version': 1, 'request': 'match'}, 7, version.format(1)),
            ({'version': 4, 'request': 'match'}, 7, version.format(4)),
            ({'request': 'match'}, 7, version.format(0)),
            ({'version': '3', 'request': 'match'}, 7, version.format(0)),
            ({'version': 0x1_0000_0003}, 7, version.format(3)),
            ({'version': 2**64 - 1}, 7, version.format(-1)),
            ({'version': 2}, 4, 'invalid request format (missing type)'),
            ({'version': 3, 'request': 1}, 4, 'invalid request format (missing type)'),
            ({'version': 3, 'request': 'Match'}, 4, 'unrecognized request'),
            ({'version': 2, 'request': ''}, 4, 'unrecognized request'),
            ({'version': 3, 'request': 'match\0s'}, 4, 'unrecognized request'),
            ({'version': 3, 'request': 'add', 'paths': ['']}, 9, 'absolute path required: '),
            ({'version': 3, 'request': 'add', 'paths': ['/\0x']}, 9, 'invalid plugin path: /\0x'),
            ({'version': 3, 'request': 'remove', 'paths': [long, 5]}, 9, 'no plugin at ' + long),
            ({'version': 3, 'request': 'add'}, 4, malformed),
            ({'version': 3, 'request': 'remove', 'paths': '/'}, 4, malformed),
            ({'version': 3, 'request': 'annotate', 'uuids': []}, 4, malformed + ' (bad annotations dictionary)'),
            ({'version': 3, 'request': 'annotate', 'annotations': {'election': 1}}, 4, malformed + ' (uuid)'),
            ({'version': 3, 'request': 'ready'}, 4, malformed + ' (uuid)'),
            ({'version': 3, 'request': 'access', 'uuids': {}}, 4, malformed + ' (uuid)'),
            ({'version': 3, 'request': 'access', 'uuids': [long]}, 4, 'invalid request (bad uuid array)'),
            ({'version': 3, 'request': 'lock', 'paths': ['/'], 'flags': -1}, 4, malformed + ' (unsupported hold flags)'),
            ({'version': 3, 'request': 'bulk', 'flags': '1'}, 0, {}),
            ({'version': 2, 'request': 'match'}, 0, {}),  # forms came with version 3
            ({'version': 3, 'request': 'match', 'flags': -1}, 0, {'matches': []}),  # no flags at all
            ({'version': 3, 'request': 'match', 'flags': 2**63, 'rules': {}}, 0, {'matches': []}),
        ]:
            with self.subTest(request):
                self.assertEqual(connection.call(request), {'errorcode': code, 'error': answer} if code else answer)

    def test_what_is_no_request_is_logged_until_that_is_too_much(self):
        self.world.start('-v')
        connection = self.connect()
        client = f'client {os.getpid()} '
        for _ in range(40):
            connection.send(5, 0, encode('hello'))
        connection.send(6, 0, b'')
        for _ in range(1000):
            self.assertEqual(connection.call({'version': 3, 'request': 'unheard of'})['errorcode'], 4)
        connection.socket.close()
        lines = []
        self.eventually(lambda: lines.extend(self.world.take_lines()) or any(client + 'is dead' in line for line in lines),
                        'the end of the connection is logged')
        for text, times in [
            (client + os.readlink('/proc/self/exe'), 1),
            ('unexpected message "hello" on connection ', 16),
            (f'further unexpected messages of {client}are not logged', 1),
            (client + 'termination imminent', 1),
            ('incoming request ', 1000),
            (client + 'request unheard of', 1000),
            ('Replying ', 1000),
            (client + 'used 1000 requests so far', 1),
        ]:
            self.assertEqual(sum(text in line for line in lines), times, text)

    def test_the_command_line_says_what_is_served_or_why_nothing_is(self):
        state = self.world.write('annotations', {'version': 16, 'data': {}})
        self.world.start('-c', 'abc', '-S', 'first', '-S', 'last', '-d', state)
        self.assertNotEqual(self.world.vtctl('-S', 'last', 'match').returncode, 7)
        other = World()
        self.addCleanup(other.end)
        os.symlink(state, other / 'alias')
        before = os.listdir('.')
        usage, pid = 'Usage: vtd [-S servicename] [-v]\n', str(self.world.daemon.pid)
        for world, arguments, status, error in [
            (other, ['extra'], 2, ''),
            (other, ['-v', '-x'], 2, "'x'"),
            (other, ['-d'], 2, "'d'"),
            (other, ['--help'], 2, "'-'"),
            (self.world, ['-S', 'another', '-d', other / 'annotations'], 1, pid),  # the same state directory
            (other, ['-d', other / 'alias'], 1, f'process {pid} holds the lock {state}'),
            (other, ['-S', 'no/such/name'], 1, 'no/such/name'),
            (other, ['-d', ''], 1, 'annotations cannot be kept in "": it names no file'),
        ]:
            with self.subTest(arguments):
                ran = subprocess.run([VTD, *arguments], env=world.environment, stderr=subprocess.PIPE, timeout=20)
                said = ran.stderr.decode()
                self.assertEqual((ran.returncode, said.endswith(usage)), (status, status == 2))
                self.assertIn(error, said)
                self.assertEqual(said == usage, error == '')
        self.assertEqual(os.listdir('.'), before)
        for directory in 'state', 'shared':
            os.makedirs(other / directory, exist_ok=True)
            os.chmod(other / directory, 0o777)
        other.start('-d', other / 'shared/Annotations')
        self.assertNotEqual(other.vtctl('match').returncode, 7)
        self.assertEqual([line.split(':')[0] for line in other.take_lines('who can write there')],
                         [f'others may write in {other / directory}' for directory in ('state', 'shared')])
        other.kill_daemon()
        other.start()
        self.assertEqual(os.stat(other / 'state/halvern.velto').st_mode & 0o777, 0o700)


if __name__ == '__main__':
    main()
