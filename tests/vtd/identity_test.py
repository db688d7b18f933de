"""A record means one directory: what lies in its place by now is neither named nor opened."""
import os
import socket
import struct

from world import WorldTest, main
from match import decode, text

ROUNDS = int(os.environ.get('VTD_EXCHANGES', 300))
APPLICATION = 'user/Applications/A.app'
BUNDLE = APPLICATION + '/PlugIns/p'


class IdentityTest(WorldTest):
    def ask_service(self, **keys):
        """What the sandbox service answers, with the descriptor, if any: numbers are signed here, and bytes are data."""
        def encode(value):
            if isinstance(value, int):
                return b'\x02' + value.to_bytes(8, 'little')
            return bytes([6]) + text(value.decode()) if isinstance(value, bytes) else b'\x05' + text(value)

        body = b''.join(text(key) + encode(value) for key, value in keys.items())
        self.service.send(3, 1, struct.pack('<BII', 9, 4 + len(body), len(keys)) + body)
        head, files, _, _ = socket.recv_fds(self.service.socket, 16, 1)
        return decode(self.service.read(struct.unpack_from('<I', head)[0] - 12))[0], files

    def open(self, token, path):
        """What the file holds that is lent for a token; nothing when it is refused."""
        handle = self.ask_service(request='consume', token=token)[0]['handle']
        if handle <= 0:
            return None
        _, files = self.ask_service(request='open', handle=handle, path=path.encode())
        self.ask_service(request='release', handle=handle)
        content = os.read(files[0], 100) if files else None
        for file in files:
            os.close(file)
        return content

    def test_nothing_outside_is_named_or_opened_while_directories_are_exchanged(self):
        shared = ['inside/file', 'run']
        self.world.install(APPLICATION)
        self.world.install(BUNDLE, {'Shared': shared})
        self.world.write(BUNDLE + '/inside/file', b'inside')
        # An outside to match each level. What may be taken for a plug-in in its own right could rightly be found.
        for place in 'outside/', 'outside/p/', 'outside/PlugIns/p/':
            self.world.write(place + 'inside/file', b'outside')
            os.chmod(self.world.write(place + 'run', b'outside'), 0o755)
        for place in 'linked/', 'linked/p/', 'linked/PlugIns/p/':
            self.world.install(place, {'Shared': shared}, Marker='outside')
            self.world.write(place + 'inside/file', b'outside')
        self.world.start()
        client = self.world.client()
        self.service = self.world.connect('halvern.velto.vtd.sandbox')
        self.addCleanup(self.service.socket.close)
        bundle, away = self.world / BUNDLE, self.world / 'away'
        genuine = client.ask('access', uuids=client.uuids('p'))['extensions'][0]
        self.assertEqual(self.open(genuine, bundle + '/inside/file'), b'inside')

        def named(tokens):
            for token in tokens:
                path = token.split(';')[2]
                self.assertTrue((path + '/').startswith(bundle + '/'), token)
                for file in bundle + '/inside/file', bundle + '/run':
                    self.assertNotEqual(self.open(token, file), b'outside', token)

        met = 0
        for number in range(ROUNDS):
            place = self.world / (BUNDLE, os.path.dirname(BUNDLE), APPLICATION)[number % 3]
            outside = self.world / ('linked', 'outside')[number // 3 % 2]
            uuids = []
            self.eventually(lambda: uuids or uuids.extend({'$uuid': form['uuid']} for form in client.found().values()
                                                          if form['identifier'] == 'p'), 'it is found again')
            os.rename(place, away)
            if outside.endswith('linked'):
                os.symlink(outside, place)
            else:
                os.rename(outside, place)
            access, found = client.ask('access', uuids=uuids), client.found()
            ready = client.ask('ready', uuids=uuids)
            named([*access.get('extensions', []), *found.get('p', {}).get('extensions', {}).values()])
            self.assertIn(access.get('errorcode'), [4], access)
            self.assertIn(ready.get('errorcode'), [4], ready)
            self.assertFalse([form for form in found.values() if 'Marker' in form['bundleInfo']])
            self.assertIsNone(self.open(genuine, bundle + '/inside/file'))
            met += bool(self.world.take_lines('or another lies in its place'))
            if outside.endswith('linked'):
                os.remove(place)
            else:
                os.rename(place, outside)
            os.rename(away, place)
        self.assertGreater(met, ROUNDS / 2, 'rounds that the registry had not noticed yet')

    def test_what_was_read_while_it_changed_is_read_again(self):
        """Changed and changed back before the registry looks: it has nothing to announce."""
        names = [f'p{number}' for number in range(10)]
        for name in names:
            self.world.install('system/PlugIns/' + name, {})
        self.world.start()
        client = self.world.client()
        for marked in {'Marker': 'B'}, {}:
            for name in names:
                self.world.install('system/PlugIns/' + name, {}, **marked)
            client.found()
        self.eventually(lambda: set(names) == {name for name, form in client.found().items()
                                               if 'Marker' not in form['bundleInfo']}, 'what it says now is found')


if __name__ == '__main__':
    main()
