"""What a host finds: by its rules and by where plug-ins lie, and what it is told of what it found."""
import json
import os
import shutil

from world import EXAMPLES, VTCTL, WorldTest, main


class DiscoveryTest(WorldTest):
    def start(self, *arguments):
        self.world.start(*arguments)
        self.client = self.world.client()
        self.world.take_lines()

    def plug_in(self, name, extension={}, entitlements=None, **info):
        bundle = self.world.install('system/PlugIns/' + name, extension, **info)
        if entitlements is not None:
            self.world.write(f'system/PlugIns/{name}/Entitlements.plist', entitlements)
        return bundle

    def seen(self, rules):
        return set(self.client.found(rules))

    def test_a_rule_is_an_attribute_met_with_a_pattern(self):
        attributes = {'Version': '2.10', 'Both': 'attribute', 'KXExtensionPointName': 'p', 'Types': [3, 'text', 'image']}
        self.plug_in('viewer', {'KXExtensionAttributes': attributes}, {'right': 'given', 'denied': False, 'zero': 0},
                     Both='info', InfoOnly='here')
        self.start()
        identifier, right = 'KXExtensionIdentifier', 'ENTITLEMENT:'
        for rules, matches in [
            ({}, True),
            ({identifier: 'viewer'}, True),
            ({identifier: ['a', '=viewer']}, True),
            ({identifier: ['a', 1, 'view']}, False),
            ({identifier: ['a', '<>a']}, True),
            ({identifier: '='}, False),
            ({identifier: []}, False),
            ({identifier: '<>a', 'KXExtensionPointName': 'p'}, True),
            ({identifier: 'viewer', 'KXExtensionPointName': ['q', '=p']}, True),
            ({identifier: 'viewer', 'KXExtensionPointName': 'q'}, False),
            ({'halvern.uuid': self.client.uuids('viewer')[0]['$uuid']}, True),
            ({'KXUserElection': '0'}, True),
            ({'KXExtensionContainingApp': False}, False),
            ({'Both': 'attribute', 'InfoOnly': 'here'}, True),
            ({'Both': 'attribute', 'InfoOnly': 'there'}, False),
            ({right + 'right': 'given', right + 'denied': False, right + 'zero': False}, True),
            ({right + 'denied': True}, False),
            ({right + 'Version': True}, False),
        ]:
            with self.subTest(rules):
                self.assertEqual(self.seen(rules), {'viewer'} if matches else set())
        self.seen({'Version': '?zt-is:x'})
        self.seen({'Types': '?'})  # of three elements two are texts
        self.assertEqual([line.split(' match ')[1] for line in self.world.take_lines('unrecognized match operator')],
                         ['operator:?zt-is:x', 'operator:? (2 times)'])

    def test_rules_mean_what_their_page_says(self):
        with open(os.path.join(EXAMPLES, '../doc/rules.md'), encoding='utf-8') as page:
            table = page.read().split('| pattern | value | verdict |\n|---|---|---|\n')[1].split('\n\n')[0]
        rows = [[cell.strip(' `') for cell in line.strip('|').split(' | ')] for line in table.splitlines()]
        self.world.write('system/Types.plist', {'jpeg': 'image', 'png': 'image', 'image': 'content'})
        self.plug_in('viewer', {'KXExtensionAttributes': {
            str(number): json.loads(value) for number, (_, value, _) in enumerate(rows) if value != 'nothing'}})
        self.start()
        for number, (pattern, value, verdict) in enumerate(rows):
            with self.subTest(pattern=pattern, value=value):
                rules = {str(number): json.loads(pattern)}
                self.assertEqual(self.seen(rules), {'yes': {'viewer'}, 'no': set()}[verdict])
        self.assertGreater(len(rows), 50)

    def test_an_sdk_that_changes_changes_what_hosts_find(self):
        self.plug_in('a', {'KXExtensionPointIdentifier': 's'})
        self.start()
        sdk = 'system/SDKs/s.plist'
        self.assertEqual(self.seen({}), {'a'})
        rules = [{}, {'KXExtensionPointName': 's'}, {'KXExtensionPointName': 'p'}]
        for content, *found in [
            ({'KXExtension': {'KXExtensionAttributes': {'KXExtensionPointName': 'p'}}}, True, False, True),
            ({'KXExtensionPointName': 's'}, True, True, False),
            (b'no list', False, False, False),  # what it demands is not known
            ({'KXExtensionPointName': 's'}, True, True, False),
            ({'KXExtensionPointName': 's', 'KXExtension': {'KXExtensionHostEntitlement': 'h'}}, False, False, False),
            ({'KXExtensionPointName': 's'}, True, True, False),
        ]:
            self.world.write(sdk, content)
            expected = [{'a'} if is_found else set() for is_found in found]
            self.eventually(lambda: [self.seen(each) for each in rules] == expected, content)

    def test_elections_are_rules_by_their_number_and_beside_literals_by_their_low_byte(self):
        self.plug_in('one')
        self.start()
        uuids = self.client.uuids('one')
        for stored, pattern, alone, beside_literal in [
            (0x101, '=1', True, True),
            (0x10002, '65538', True, False),
            (0x1_0000_0005, ['7', '5'], True, True),
            (-1, '-65281', True, True),  # not literal
            (-1, '=-65281', True, False),
            (-1, '255', False, False),
            (1, '01', True, False),
            (1, [*'23456789', '01', '1'], True, True),  # equal as numbers, and of many
            (1, [], False, False),
        ]:
            with self.subTest(stored=stored, pattern=pattern):
                self.assertEqual(self.client.ask('annotate', uuids=uuids, annotations={'election': stored}), {})
                rules = {'KXUserElection': pattern}
                self.assertEqual(self.seen(rules), {'one'} if alone else set())
                beside = {**rules, 'KXExtensionIdentifier': 'one'}
                self.assertEqual(self.seen(beside), {'one'} if beside_literal else set())

    def test_a_plug_in_elects_itself_or_another_in_its_place_unless_the_user_has_chosen(self):
        stored = {'chosen': 1, 'unset': 0, 'refused': -1, 'odd': []}
        self.world.write('state/halvern.velto/Annotations', {
            'version': 16, 'data': {name: {'election': election} for name, election in stored.items()}})
        for name in (*stored, 'new'):
            self.plug_in(name, {}, {'halvern.developer.auto-elect-plugin': True})
        self.plug_in('text', {}, {'halvern.developer.auto-elect-plugin': '1'})
        self.plug_in('replacing', {}, {'halvern.developer.replace-plugin': 'new'})
        self.start()
        names = [*stored, 'new', 'text', 'replacing']
        elected = {'KXExtensionIdentifier': names, 'KXUserElection': '1'}
        self.assertEqual(self.seen(elected), {'chosen', 'new'})  # before there are records
        forms = self.client.found()
        elections = {name: form['annotations'].get('election') for name, form in forms.items()}
        self.assertEqual(elections, {**dict.fromkeys(names, 1), 'refused': -1})
        self.assertEqual(self.seen(elected), set(names) - {'refused'})
        self.assertEqual(forms['new']['overrider'], forms['replacing']['uuid'])
        self.assertEqual(forms['replacing']['overriding'], 'new')

    def test_what_lies_nowhere_is_still_being_installed_or_is_dedicated_is_left_out(self):
        hosts = {}
        for bundle in 'user/Applications/Bare.app', 'user/Applications/A.app', 'system/Applications/Manager.app':
            self.world.install(bundle, QFBundleExecutable='host')
            hosts[bundle] = shutil.copy(VTCTL, self.world / bundle + '/host')
        self.world.write('system/Applications/Manager.app/Entitlements.plist', {'halvern.private.velto.manager': True})
        system = self.plug_in('system')
        self.world.install('user/Applications/A.app/PlugIns/inside', {})
        self.world.install('user/Applications/A.app/PlugIns/own', {'Dedicated': True})
        lone = self.world.install('user/elsewhere/lone', {})
        self.start()
        bare, owner, manager = map(self.world.client, hosts.values())
        self.assertEqual(owner.ask('add', paths=[lone]), {})
        for client, flags, seen in [
            (self.client, 0, {'system', 'inside'}),
            (self.client, 8, {'system'}),
            (bare, 0, {'system', 'inside'}),
            (owner, 0, {'system', 'inside', 'own'}),
            (manager, 0, {'system', 'inside'}),
            (manager, 0x208, {'system', 'inside', 'own', 'lone'}),
        ]:
            self.assertEqual(set(client.found(flags=flags)), seen)
        self.assertEqual(self.seen({'KXExtensionContainingApp': self.world / 'user/Applications/A.app'}), {'inside'})
        placeholder = self.world.write('user/Applications/A.app/.placeholder', b'')
        self.eventually(lambda: set(manager.found(flags=0x200)) == {'system', 'lone'}, 'the rest lies in a placeholder')
        os.remove(placeholder)
        self.client.ask('lock', paths=[system], flags=2)
        self.eventually(lambda: set(owner.found()) == {'inside', 'own'}, 'the application is whole, and one is on hold')
        self.assertEqual(set(manager.found(flags=0x200)), {'system', 'inside', 'own', 'lone'})

    def test_a_candidate_that_costs_too_much_is_left_out_alone(self):
        for name, values in ('a', ['yes']), ('b', ['no'] * 200 + ['yes']), ('c', ['yes']):
            self.plug_in(name, {'KXExtensionAttributes': {'Names': values}})
        self.start()
        for _ in range(2):
            self.assertEqual(self.seen({'Names': ['<a'] * 100 + ['yes']}), {'a', 'c'})
        self.assertEqual(len(self.world.take_lines('left out of a discovery: b at ')), 1, 'said once for its record')
        self.assertEqual(self.seen({'Names': ['never'] * 10_000 + ['yes']}), {'a', 'b', 'c'}, 'literals are looked up')
        self.assertEqual(self.seen({'Names': 'yes'}), {'a', 'b', 'c'})

    def test_the_cache_is_emptied_whole_once_it_is_over_its_limit(self):
        for name in 'abcd':
            self.plug_in(name)
        self.start('-c', '2')
        for _ in range(2):
            self.assertEqual(self.seen({}), set('abcd'))
            line, = self.world.take_lines('purging cache')
            self.assertTrue(line.endswith('purging cache for 3 > 2'), line)

    def test_a_bundle_becomes_a_record_or_one_line_in_the_log(self):
        rows = {  # what its form must hold among others, or what the line says
            'declared': ({'HubProtocolVersion': 3}, {'Velto': 1}, {'hubProtocolVersion': 3}),
            'text': ({'HubProtocolVersion': '4'}, {}, {'hubProtocolVersion': 4}),
            'zero': ({'HubProtocolVersion': 0}, {}, {'hubProtocolVersion': 0}),
            'old': ({'HubProtocolVersion': []}, {'Velto': 1}, {'hubProtocolVersion': 1}),
            'new': ({'HubProtocolVersion': []}, {}, {'hubProtocolVersion': 2}),
            'several': ({'Multiple': {'x': {'KXExtensionProtocol': 'P'}}}, {},
                        {'identifier': 'x', 'original-identifier': 'several'}),
            'long': ({}, {'QFBundleShortVersionString': '9' * 4000}, {'systemResident': True}),
            'data': ({'KXExtensionProtocol': '#Data'}, {}, {'annotations': {}}),
            'unusable': ({'KXExtensionProtocol': 5}, {}, 'unusable: missing "KXExtensionProtocol" key in'),
            'container': ({}, {}, 'this plug-in has no sandbox data container'),
            'caf\udce9': ({}, {'QFBundleIdentifier': 'latin'}, 'its path is not UTF-8'),
        }
        for name, (extension, info, _) in rows.items():
            self.plug_in(name, extension, DTBuild='x', Dt=2, **info)
        for name in 'container', 'data':
            self.world.write('state/containers/' + name, b'in its place')
        self.start()
        forms = {os.path.basename(form['path']): form for form in self.client.found().values()}
        lines = self.world.take_lines()
        for name, (_, _, expected) in rows.items():
            with self.subTest(name):
                if isinstance(expected, str):
                    self.assertNotIn(name, forms)
                    self.assertEqual(sum(expected in line for line in lines), 1, lines)
                else:
                    self.assertEqual({**forms[name], **expected}, forms[name])
                    self.assertEqual(forms[name]['bundleInfo'].keys() & {'DTBuild', 'Dt'}, {'Dt'})

    def test_shared_resources_never_lead_out_of_their_bundle(self):
        rows = {
            'nothing': (7, None),
            'whole': ('.', {'.'}),
            'names': ([7, 'Inside/file', 'missing', 'In'], {'In', 'Inside/file'}),
            'upwards': (['..', '../Outside', 'Inside/../../Outside', 'Inside/..'], {'Inside/..'}),
            'link': (['Out', 'Out/file'], set()),
            'absolute': (self.world / 'system/PlugIns/Outside', set()),
            'endless': ('x' * 100_000, set()),
            'many': (['Inside/file', *map(str, range(400))], {'Inside/file'}),
        }
        self.world.write('system/PlugIns/Outside/file', b'x')
        for name, (shared, _) in rows.items():
            bundle = self.plug_in(name, {'Shared': shared})
            self.world.write(f'system/PlugIns/{name}/Inside/file', b'x')
            for link, target in ('In', 'Inside'), ('Out', '../Outside'):
                os.symlink(target, f'{bundle}/{link}')
        self.start()
        forms = self.client.found()
        for name, (_, issued) in rows.items():
            tokens = forms[name].get('extensions')
            self.assertEqual(tokens if tokens is None else set(tokens), issued, name)
        path = self.world / 'system/PlugIns/names'
        line, = self.world.take_lines(f'failed to make extension for {path}/missing in plug-in at {path}')
        self.assertTrue(line.endswith(': No such file or directory'), line)
        # What was sound once and was exchanged since is refused like any other.
        os.remove(path + '/In')
        os.symlink('../Outside', path + '/In')
        self.assertEqual(set(self.client.found()['names']['extensions']), {'Inside/file'})
        # A token is for the very directory, not for a copy that takes its place.
        whole, token = self.world / 'system/PlugIns/whole', forms['whole']['extensions']['.']
        self.assertEqual(self.client.found()['whole']['extensions'], {'.': token})
        shutil.copytree(whole, self.world / 'copy')
        os.rename(whole, self.world / 'old')
        os.rename(self.world / 'copy', whole)
        form = forms['whole']
        self.eventually(lambda: self.client.found().get('whole', form)['extensions']['.'] != token, 'another token')


if __name__ == '__main__':
    main()
