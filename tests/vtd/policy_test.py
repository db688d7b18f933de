"""Who may see what, by the daemon and hosts that are processes with bundles of their own."""
import os
import shutil
import socket

from world import VTCTL, WorldTest, main

RESTRICTION = 'halvern.developer.velto.allowedplugins'


class PolicyTest(WorldTest):
    def setUp(self):
        super().setUp()
        shutil.copy(VTCTL, self.world / 'host')
        self.world.install('system/PlugIns/open', {})
        self.world.install('system/PlugIns/demanding', {'KXExtensionHostEntitlement': 'may'})

    def install_rated(self, name, metadata):
        """A plug-in in an application in a container of its own, with the metadata there, if any."""
        container = f'user/Applications/{name}'
        self.world.install(container + '/The.app')
        self.world.install(f'{container}/The.app/PlugIns/{name}', {})
        if metadata is not None:
            self.world.write(container + '/JorunMetadata.plist', metadata)

    def host(self, bundle, entitlements=None):
        self.world.write(bundle + '/Info.plist', {'QFBundleIdentifier': 'host', 'QFBundleExecutable': 'host'})
        if entitlements is not None:
            self.world.write(bundle + '/Entitlements.plist', entitlements)
        os.link(self.world / 'host', self.world / f'{bundle}/host')
        return self.world.client(self.world / f'{bundle}/host')

    def start(self):
        self.world.start('-c', '1')  # so that records are made again and again

    def test_hosts_see_what_their_entitlements_and_the_plug_ins_allow(self):
        self.world.install('system/PlugIns/odd', {'KXExtensionHostEntitlement': 5})
        self.start()
        only = {RESTRICTION: {'KXExtensionIdentifier': 'open'}}
        lacks = 'demanding: the host does not have the "may" entitlement'
        excluded = "demanding: the host's plug-in entitlement does not allow this plug-in"
        for number, (entitlements, seen, refusal) in enumerate([
            (None, {'open'}, lacks),
            (b'no list', {'open'}, lacks),
            ({'may': True}, {'open', 'demanding'}, 'odd: the host does not have the "5" entitlement'),
            ({'may': 'no'}, {'open', 'demanding'}, ''),
            ({'may': False}, {'open'}, lacks),
            ({'may': 0}, {'open'}, lacks),
            ({'5': True}, {'open'}, 'odd: the host does not have the "5" entitlement'),
            ({**only, 'may': True}, {'open'}, excluded),
            (only, {'open'}, excluded),
            ({RESTRICTION: {}}, {'open'}, lacks),
            ({RESTRICTION: 'open'}, set(), 'open: invalid host restriction entitlement'),
            ({RESTRICTION: []}, set(), 'demanding: invalid host restriction entitlement'),
        ]):
            with self.subTest(entitlements):
                host = self.host(f'hosts/{number}.app', entitlements)
                self.world.take_lines()
                self.assertEqual(set(host.found()), seen)
                refusals = self.world.take_lines(' cannot use plugin ')
                self.assertEqual(len(refusals), 3 - len(seen))
                self.assertTrue(any(line.endswith(refusal) for line in refusals), refusals)

    def test_applications_above_the_maximum_rating_are_left_out(self):
        unrated = {'none': None, 'text': {'rating': {'rank': '99'}}, 'list': {'rating': []}, 'malformed': b'no list',
                   'other': {'rank': 99}}
        for name, metadata in {**unrated, '17': {'rating': {'rank': 17}}, '9': {'rating': {'rank': 9.9}}}.items():
            self.install_rated(name, metadata)
        self.start()
        host = self.host('hosts/host.app')
        complaints = 0
        for restrictions, rated, complains in [
            (None, {'17', '9'}, 0),
            ({'maximum-apps-rating': 17}, {'17', '9'}, 0),
            ({'maximum-apps-rating': 16}, {'9'}, 0),
            ({'maximum-apps-rating': 9}, {'9'}, 0),  # the whole part counts
            ({'other': 0}, {'17', '9'}, 0),
            ({'maximum-apps-rating': -1}, set(), 0),
            ({'maximum-apps-rating': '17'}, set(), 1),
            ([17], set(), 1),
            (b'no list', set(), 1),
        ]:
            with self.subTest(restrictions):
                if restrictions is not None:
                    self.world.write('config/restrictions.plist', restrictions)
                self.world.take_lines()
                for _ in range(2):
                    self.assertEqual(set(host.found()), {'open', *unrated, *rated})
                lines = self.world.take_lines()
                self.assertEqual(sum('restrictions.plist' in line for line in lines), complains, 'once a change of it')
                complaints += sum('malformed/JorunMetadata.plist' in line for line in lines)
                refusal = 'cannot use plugin 17: the containing Application is age restricted'
                self.assertEqual(any(line.endswith(refusal) for line in lines), '17' not in rated)
        self.assertEqual(complaints, 1, 'for all the records that were made')
        os.remove(self.world / 'config/restrictions.plist')
        os.symlink('gone', self.world / 'config/restrictions.plist')
        self.assertEqual(set(host.found()), {'open', *unrated}, 'a link that leads nowhere restricts')

    def test_exclusions_act_from_the_next_request_on_whoever_asks(self):
        self.start()
        host = self.host('hosts/host.app')
        manager = self.host('system/Applications/manager.app', {'halvern.private.velto.manager': True})
        preferences = f'config/preferences/halvern.velto.userprefs.{socket.gethostname()}.plist'
        everything = {'open', 'demanding'}
        excluding = {'KXExtensionIdentifier': 'open'}
        for exclusions, seen, said in [
            ([{'KXExtensionIdentifier': 'x'}, excluding], {'demanding'}, 0),
            ([{**excluding, 'KXExtensionPointName': 'some.point'}], everything, 0),  # both must match
            ([{'KXExtensionIdentifier': '>=o'}, {'KXExtensionIdentifier': 'demanding'}], set(), 0),
            ([], everything, 0),
            ([{}], set(), 0),
            ([excluding, 'open'], everything, 1),
            (excluding, everything, 1),
        ]:
            with self.subTest(exclusions):
                self.world.write(preferences, {'exclusions': exclusions})
                self.world.take_lines()
                self.assertEqual(set(host.found()), seen & {'open'}, 'it may not use the other anyway')
                self.assertEqual(set(manager.found(flags=0x200)), seen)
                lines = self.world.take_lines()
                self.assertEqual(sum('userprefs' in line for line in lines), said, 'lines about the file')
                self.assertEqual(sum(line.endswith(' plugin open excluded') for line in lines), 0 if 'open' in seen else 2)
        os.remove(self.world / preferences)
        self.assertEqual(set(host.found()), {'open'})
        # Whoever can name a plug-in may read it.
        uuids = [{'$uuid': manager.found(flags=0x200)['demanding']['uuid']}]
        self.assertEqual(host.ask('ready', uuids=uuids)['errorcode'], 11)
        self.assertEqual(len(host.ask('access', uuids=uuids)['extensions']), 1)


if __name__ == '__main__':
    main()
