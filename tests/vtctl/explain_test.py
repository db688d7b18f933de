"""What people are told about a plug-in that is not offered: by the daemon, gate by gate, and by the tool, from the disk."""
import os
import subprocess

from world import VTCTL, Client, WorldTest, main


class ExplainTest(WorldTest):
    def setUp(self):
        super().setUp()
        self.world.write('system/SDKs/p.plist', {'KXExtension': {'KXExtensionAttributes': {'KXExtensionPointName': 'p'}}})
        for name, extension in {'plain': {}, 'held': {}, 'excluded': {}, 'demanding': {'KXExtensionHostEntitlement': 'rare'},
                                'dedicated': {'Dedicated': True}, 'broken': {'PassProxy': True}}.items():
            self.world.install('system/PlugIns/' + name, {'KXExtensionPointIdentifier': 'p', **extension})
        self.world.install('user/Applications/Own.app')
        self.world.install('user/Applications/Own.app/PlugIns/own', {'Dedicated': True})
        self.world.start()
        self.assertEqual(self.world.vtctl('exclude', 'KXExtensionIdentifier=excluded').returncode, 0)

    def told(self, *arguments):
        ran = self.world.vtctl(*arguments)
        return ran.stdout.decode() + ran.stderr.decode()

    def test_each_refusal_names_its_grounds_and_who_can_change_it(self):
        hold = self.world.begin(VTCTL, 'hold', self.world / 'system/PlugIns/held')
        hold.stdout.readline()
        application = self.world / 'user/Applications/Own.app'
        for arguments, *patterns in [
            (['explain', 'plain'], 'offered', r'duplicates +passed'),
            (['explain', 'held'], 'held back by "holds"', f'by process {hold.pid} for', r'rules +would pass', 'unhold'),
            (['explain', 'plain', 'KXExtensionPointName=q'], 'wanted: q', 'found: p', r'plain/Info.plist: KXExt.*PointName'),
            (['explain', 'plain', 'ENTITLEMENT:e=true'], 'found: nothing', 'plain/Entitlements.plist: e'),
            (['explain', 'excluded'], 'found: KXExtensionIdentifier: excluded', 'exclusions.0', 'vtctl include 1'),
            (['explain', 'demanding'], 'the "rare" entitlement', 'Info.plist: KXExtension.KXExtensionHostEntitlement'),
            (['explain', 'dedicated'], 'a host with plug-ins of its own', 'KXExtension.Dedicated'),
            (['explain', 'own', '--host', application], 'offered'),
            (['explain', 'own', '--host', str(os.getpid())], 'dedicated to another'),
            (['explain', 'own', '--host', '999999999'], 'no such host: 999999999'),
            (['explain', 'broken'], 'refused by "bundle"', 'PassProxy', 'vtctl verify'),
            (['explain', 'plian'], 'did you mean plain'),
            (['explain', '/none'], 'knows no plug-in at /none', 'nothing here'),
            (['match', 'KXExtensionPointNam=p'], 'no plug-in matches', 'did you mean KXExtensionPointName', 'name 7, held back: 3 by rules, 2'),
            (['match', 'KXExtensionIdentifier=plan'], 'did you mean plain'),
            (['match', '--rejected'], r'held back: .*1 by bundle', r'excluded .*exclusions'),
            (['match', '--rejected', '--json'], '"matches"', '"explanations"', '"verdict": "held back"'),
        ]:
            told = self.told(*arguments)
            for pattern in patterns:
                self.assertRegex(told, pattern, arguments)

    def test_a_sandboxed_client_learns_nothing_of_what_else_there_is(self):
        self.needs('unshare', '-Ur', 'true')
        run = self.world / 'user/Applications/Own.app/run'
        with open(VTCTL, 'rb') as program:
            self.world.write('user/Applications/Own.app/run', program.read())
        os.chmod(run, 0o755)
        for program, known in (VTCTL, set()), (run, {'own'}):
            client = Client(self.world.begin('unshare', '-Ur', program, 'call', '-', stdin=subprocess.PIPE))
            reply = client.ask('match', explain=True)
            self.assertEqual({told['identifier'] for told in reply['explanations']}, known)
            self.assertEqual(client.ask('match', explain=True, forPid=os.getpid())['error'], f'no such host: {os.getpid()}')
            self.assertNotIn('explanations', client.ask('match', explain=False))


if __name__ == '__main__':
    main()
