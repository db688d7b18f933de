"""The requests that change what is installed, and what the user chose."""
import os
import shutil
import subprocess
import uuid

from world import VTCTL, Client, WorldTest, main


class RegistryTest(WorldTest):
    def test_plug_ins_are_registered_by_path_up_to_the_first_that_fails(self):
        inside = self.world.install('system/elsewhere/A.app/PlugIns/inside', {})
        for bundle, extension in ('elsewhere/lone', {}), ('Applications/B.app/PlugIns/scanned', {}), ('plain', None):
            self.world.install('system/' + bundle, extension)
        os.symlink('elsewhere', self.world / 'system/link')
        self.world.start()
        client = self.world.client()
        scanned = 'Applications/B.app/PlugIns/scanned'
        for request, paths, code, error, installed in [
            ('add', ['plain'], 2, 'unable to register plug-in at {}/plain', {'scanned'}),
            ('add', ['elsewhere/lone', '../none', 'link/A.app'], 9, 'invalid plugin path: {}/../none', {'scanned', 'lone'}),
            ('add', ['elsewhere/lone/', 'link/A.app/PlugIns/inside'], 0, '', {'scanned', 'inside', 'lone'}),
            ('add', [scanned], 0, '', {'scanned', 'inside', 'lone'}),
            ('remove', [scanned], 0, '', {'scanned', 'inside', 'lone'}),  # the registration of what is found anyway
            ('remove', [scanned], 9, 'no plugin at {}/' + scanned, {'scanned', 'inside', 'lone'}),
            ('remove', ['link/lone', 'none', 'elsewhere/A.app'], 9, 'no plugin at {}/none', {'scanned', 'inside'}),
        ]:
            with self.subTest(request=request, paths=paths):
                system = self.world / 'system'
                refusal = {'errorcode': code, 'error': error.format(system)} if code else {}
                self.assertEqual(client.ask(request, paths=[f'{system}/{path}' for path in paths]), refusal)
                self.assertEqual(set(client.found()), installed)
        self.assertEqual(len(self.world.take_lines('failed to register plug-in at')), 1)
        # What is gone from the disk is still unregistered, by the path as it is sent.
        shutil.rmtree(inside)
        self.assertEqual(client.ask('remove', paths=[self.world / 'system/link/A.app/PlugIns/inside']), {})
        self.assertEqual(client.ask('remove', paths=[inside])['error'], 'no plugin at ' + inside)

    def test_a_sandboxed_client_registers_only_what_lies_in_an_application(self):
        self.needs('unshare', '-Ur', 'true')
        places = {'user/Applications/Real.app/Nested/inside': True, 'user/Applications/Folder/In.app/PlugIns/a/deep': True,
                  'user/Applications/.hidden.app/PlugIns/hidden': False, 'user/Applications/F/G/H.app/PlugIns/below': False,
                  'elsewhere/X.app/PlugIns/impostor': False, 'system/elsewhere/lone': False}
        for place in places:
            self.world.install(place, {})
        self.world.start()
        sandboxed = Client(self.world.begin('unshare', '-Ur', VTCTL, 'call', '-', stdin=subprocess.PIPE))
        for place, taken in places.items():
            path = self.world / place
            refusal = {'errorcode': 2, 'error': 'unable to register plug-in at ' + path}
            self.assertEqual(sandboxed.ask('add', paths=[path]), {} if taken else refusal)
            self.assertEqual(os.path.basename(place) in sandboxed.found(), taken, place)
        self.assertEqual(self.world.client().ask('add', paths=[self.world / 'elsewhere/X.app/PlugIns/impostor']), {})
        self.assertIn('impostor', sandboxed.found())

    def test_annotations_are_kept_for_what_is_named_up_to_the_first_that_is_unknown(self):
        for name in 'a', 'b', 'c':
            self.world.install('system/PlugIns/' + name, {})
        self.world.start()
        client = self.world.client()
        a, b, c = client.uuids('a', 'b', 'c')
        unknown = str(uuid.uuid4()).upper()
        self.world.take_lines()
        extension = {'extension': {'x': 1}}
        for annotations, uuids, reply, said in [
            ({'election': 1, 'other': 1}, [a, b, c], {}, ['a election := 1', 'b election := 1', 'c election := 1']),
            (extension, [b, {'$uuid': unknown}, c], {'errorcode': 4, 'error': 'no such plugin (uuid not found)'},
             ['b election := (null)', 'Dravo cannot find plug-in with UUID:' + unknown]),
            ({'election': False}, [c], {}, ['c election := 0']),
            ({'unheard of': 1}, 'not looked at', {}, []),
        ]:
            with self.subTest(annotations):
                self.assertEqual(client.ask('annotate', annotations=annotations, uuids=uuids), reply)
                lines = [line for line in self.world.take_lines() if 'election :=' in line or 'cannot find' in line]
                expected = [line if 'UUID' in line else f'client {client.pid} plug-in {line}' for line in said]
                self.assertEqual([line[-len(text):] for line, text in zip(lines, expected)], expected, lines)
                self.assertEqual(len(lines), len(expected))
        self.assertEqual(self.world.read_plist('state/halvern.velto/Annotations')['data'],
                         {'a': {'election': 1}, 'b': {'election': 1, **extension}, 'c': {'election': False}})
        self.assertEqual(client.ask('bulk', flags=0xABC), {})
        self.assertEqual(len(self.world.take_lines('bulk options 0xabc not supported')), 1)


if __name__ == '__main__':
    main()
