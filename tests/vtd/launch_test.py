"""A host readies the plug-ins it chose and reads their files: what is registered, for whom, and what ends it."""
import os
import shutil
import subprocess
import sys

from world import EXAMPLES, VTCTL, Connection, WorldTest, main

KEYBOARD = 'halvern.keyboard-service'


class LaunchTest(WorldTest):
    def start(self):
        self.world.start()
        self.host = self.world.client()

    def install(self, name, extension=None, **info):
        return self.world.install('system/PlugIns/' + name, extension or {}, **info)

    def ready(self, *names):
        return self.host.ask('ready', uuids=self.host.uuids(*names))

    def registration(self, name):
        return self.world / f'run/services/{self.host.pid}/{name}@1.plist'

    def overlay(self, name):
        return self.world.read_plist(self.registration(name))['overlay']

    def test_the_profile_is_the_daemons_choice(self):
        self.world.write('state/consent.plist', {'asked': [
            {'service': 'WexaServiceOther', 'granted': False}, {'service': 'WexaServiceKeyboardNetwork', 'granted': True}]})
        in_asked, in_other = 'user/Applications/asked.app/PlugIns/', 'user/Applications/other.app/PlugIns/'
        for app in 'asked', 'other':
            self.world.install(f'user/Applications/{app}.app')
        rows = [
            (in_asked, 'halvern.share-service', None, 'plugin'),
            ('system/PlugIns/', 'halvern.filtrane.filter-data', None, 'network-filter'),
            ('system/PlugIns/', 'halvern.filtrane.filter-data.x', None, 'plugin'),
            (in_asked, KEYBOARD, None, 'keyboard'),
            (in_asked, KEYBOARD, True, 'plugin'),
            (in_asked, KEYBOARD, 1, 'plugin'),
            (in_asked, KEYBOARD, 'true', 'keyboard'),
            (in_other, KEYBOARD, True, 'keyboard'),
            ('system/PlugIns/', KEYBOARD, True, 'keyboard'),
        ]
        for number, (place, point, wish, _) in enumerate(rows):
            self.world.install(f'{place}p{number}',
                               {'KXExtensionPointIdentifier': point,
                                'KXExtensionAttributes': {} if wish is None else {'RequestsOpenAccess': wish}},
                               MoxService={'_SandboxProfile': 'none', '_OmitSandboxParameters': False})
        self.start()
        for number, row in enumerate(rows):
            with self.subTest(row):
                name = f'p{number}'
                self.assertEqual(self.ready(name), {})
                data = self.world / 'state/containers/' + name
                self.assertEqual(self.overlay(name), {'QFBundlePackageType': 'Mox!', 'MoxService': {
                    '_SandboxProfile': row[3], '_OmitSandboxParameters': True,
                    'EnvironmentVariables': {'HOME': data, 'QFFIXED_USER_HOME': data, 'TMPDIR': data + '/tmp'}}})

    def test_the_environment_is_the_daemons_with_the_plug_ins_own_over_it(self):
        own = {'EnvironmentVariables': {'HOME': '/own', 'MODE': 'x', 'NO_TEXT': 1}, 'RunLoopType': 'main'}
        rows = [('own', own, {'HOME': '/own', 'MODE': 'x'}), ('no-service', 'text', {}),
                ('no-list', {'EnvironmentVariables': 'HOME=/own'}, {})]
        for name, service, _ in rows:
            self.install(name, MoxService=service)
        self.world.environment['VTTEST_SDK'] = '/sdk'
        self.start()
        for name, _, changed in rows:
            data = self.world / 'state/containers/' + name
            self.assertEqual(self.ready(name), {})
            self.assertEqual(self.overlay(name)['MoxService']['EnvironmentVariables'],
                             {'VTTEST_SDK': '/sdk', 'HOME': data, 'QFFIXED_USER_HOME': data, 'TMPDIR': data + '/tmp',
                              **changed})
        self.assertEqual(self.overlay('own')['MoxService']['RunLoopType'], 'main')
        self.assertEqual(len(self.world.take_lines('of plug-in own(1) that are no texts: NO_TEXT')), 1)

    def test_a_data_container_is_looked_for_each_time(self):
        self.install('one')
        self.start()
        data = self.world / 'state/containers/one'
        for remove, environment in (lambda: None, {'HOME': data}), (lambda: shutil.rmtree(data), {'HOME': data}), \
                (lambda: (shutil.rmtree(data), self.world.write('state/containers/one', b'in its place')), {}):
            remove()
            self.assertEqual(self.ready('one'), {})
            given = self.overlay('one')['MoxService']['EnvironmentVariables']
            self.assertEqual({key: given[key] for key in given if key == 'HOME'}, environment)
            self.assertEqual(os.path.isdir(data + '/tmp'), bool(environment))
        self.assertEqual(len(self.world.take_lines('no data container for plug-in one(1) ')), 1)

    def test_all_that_are_named_are_registered_unless_one_is_refused_or_cannot_be(self):
        one, two = self.install('one'), self.install('two')
        self.install('data', {'KXExtensionProtocol': '#Data'})
        self.start()
        uuids = self.host.uuids('one', 'data', 'one', 'two')
        token = self.host.ask('lock', paths=[two], flags=2)['uuids']
        self.assertEqual(self.host.ask('ready', uuids=uuids),
                         {'errorcode': 11, 'error': 'access to plugin two denied: the plug-in is on hold'})
        self.assertFalse(os.path.exists(self.registration('one')))
        self.host.ask('lock', uuids=[token])
        self.assertEqual(self.host.ask('ready', uuids=uuids), {})
        self.assertEqual(sorted(os.listdir(os.path.dirname(self.registration('one')))), ['one@1.plist', 'two@1.plist'])
        self.assertEqual(len(self.world.take_lines(f'enabling pid={self.host.pid} for plug-in ')), 2)

        program = one + '/run'
        for spoil in (lambda: os.chmod(program, 0o644), lambda: os.remove(program),
                      lambda: os.symlink('/bin/sh', program), lambda: (os.remove(program), os.mkdir(program))):
            spoil()
            self.assertRegex(self.ready('one')['error'], r'^cannot obtain executable path for plug-in one\(.{36}\)$')

        shutil.rmtree(self.world / 'run/services')
        self.world.write('run/services', b'no directory')
        self.assertRegex(self.ready('two')['error'], r'^unable to enable plug-in two\(.{36}\) for pid \d+$')
        self.assertEqual(len(self.world.take_lines(f'mox error 20 allowing pid {self.host.pid} to use plug-in two(1) ')), 1)

    def test_what_has_gone_from_the_disk_is_unknown_before_anybody_has_noticed(self):
        for round in range(10):
            bundle = self.install('one')
            if round == 0:
                self.start()
            uuids = []
            self.eventually(lambda: uuids or uuids.extend({'$uuid': form['uuid']} for form in self.host.found().values()),
                            'it is found')
            os.rename(bundle, self.world / f'away{round}')
            for request in 'ready', 'access':
                self.assertEqual(self.host.ask(request, uuids=uuids),
                                 {'errorcode': 4, 'error': 'no such plugin (uuid not found)'})
            self.assertEqual(os.path.exists(self.registration('one')), False)
        self.assertTrue(self.world.take_lines(' is going, or another lies in its place'))

    def test_a_registration_goes_with_its_plug_in_or_the_log_says_why_not(self):
        one, two, three = map(self.install, ('one', 'two', 'three'))
        self.start()
        self.assertEqual(self.ready('one', 'two', 'three'), {})
        shutil.rmtree(one)
        self.eventually(lambda: not os.path.exists(self.registration('one')), 'it is withdrawn')
        os.remove(self.registration('two'))
        os.makedirs(self.registration('two') + '/in the way')
        shutil.rmtree(two)
        lines = []
        self.eventually(lambda: lines.extend(self.world.take_lines('PLUGIN REMOVAL')) or lines, 'a removal is logged')
        line, = lines  # and nothing about the other
        self.assertIn('PLUGIN REMOVAL:two RESULT:21', line)

        self.world.kill_daemon()
        shutil.rmtree(three)
        self.assertTrue(os.path.exists(self.registration('three')))
        self.world.start()
        self.eventually(lambda: not os.path.exists(self.registration('three')), 'it is withdrawn')

    def test_plug_ins_of_one_bundle_keep_their_own_profiles_and_containers(self):
        keyboard = {'KXExtensionPointIdentifier': KEYBOARD, 'KXExtensionProtocol': 'P'}
        bundle = self.install('many', {'Multiple': {'board': keyboard, 'other': {'KXExtensionProtocol': 'P'}}})
        shutil.copy('/usr/bin/env', bundle + '/run')
        self.start()
        self.assertEqual(self.ready('board', 'other'), {})
        services = {}
        for name in os.listdir(self.world / f'run/services/{self.host.pid}'):
            registration = self.world.read_plist(f'run/services/{self.host.pid}/{name}')
            service = registration['overlay']['MoxService']
            services[registration['plugIn']] = (service['_SandboxProfile'], service['EnvironmentVariables']['HOME'])
        self.assertEqual(services, {'board': ('keyboard', self.world / 'state/containers/board'),
                                    'other': ('plugin', self.world / 'state/containers/other')})
        start = [sys.executable, EXAMPLES + '/start.py', self.world / 'run', str(self.host.pid)]
        ran = subprocess.run([*start, bundle], capture_output=True)
        self.assertIn(b'name one by its UUID', ran.stderr)
        uuid, = (each['$uuid'] for each in self.host.uuids('other'))
        ran = subprocess.run([*start, uuid, 'printenv', 'HOME'], capture_output=True)
        self.assertEqual(ran.stdout.decode().strip(), self.world / 'state/containers/other')

    def test_what_was_readied_is_started_with_exactly_that_environment(self):
        bundle = self.install('one', MoxService={'EnvironmentVariables': {'MODE': 'x y'}, '_SandboxProfile': 'none'})
        shutil.copy('/usr/bin/env', bundle + '/run')  # which prints its environment
        self.start()

        def started(*arguments):
            ran = subprocess.run([sys.executable, EXAMPLES + '/start.py', self.world / 'run', str(self.host.pid), bundle,
                                  *arguments], env={**os.environ, 'LEAKED': '1'}, capture_output=True)
            return ran.returncode, (ran.stdout + ran.stderr).decode()

        self.assertIn('has not readied the plug-in', started()[1])
        self.assertEqual(self.ready('one'), {})
        data = self.world / 'state/containers/one'
        self.assertEqual(sorted(started()[1].splitlines()),
                         ['HOME=' + data, 'MODE=x y', 'QFFIXED_USER_HOME=' + data, f'TMPDIR={data}/tmp'])
        self.assertEqual(started('printf', '%s', 'argument'), (0, 'argument'))
        os.remove(bundle + '/run')
        os.symlink('/usr/bin/env', bundle + '/run')
        self.assertEqual(started()[0], 1, 'a link by now')

    def test_a_host_reads_a_plug_in_through_its_token_without_sight_of_it(self):
        self.needs('unshare', '-Urm', 'mount', '-t', 'tmpfs', 'none', '/tmp')
        one, two = self.install('one'), self.install('two')
        self.world.write('system/PlugIns/one/icon', b'the icon')
        self.start()
        uuids = self.host.uuids('two', 'one', 'two')
        self.host.ask('lock', paths=[two], flags=2)  # which access does not ask for
        tokens = self.host.ask('access', uuids=uuids)['extensions']
        self.assertEqual([token.split(';')[2] for token in tokens], [two, one, two])

        hidden = 'mount -t tmpfs none "$0" && ! test -e "$5" && exec "$@"'
        ran = subprocess.run(['unshare', '-Urm', 'sh', '-c', hidden, self.world / 'system',
                              VTCTL, 'access', '--open', 'one', one + '/icon'],
                             env=self.world.environment, capture_output=True)
        self.assertEqual((ran.stdout, ran.stderr), (b'the icon', b''))

    def test_a_token_is_for_this_user_and_this_run_of_the_daemon(self):
        self.install('one')

        def fresh_token():
            self.start()
            return self.host.ask('access', uuids=self.host.uuids('one'))['extensions'][0]

        def accepted(token, connect=self.world.connect):
            """Whether this process has a handle for the token."""
            try:
                service = connect('halvern.velto.vtd.sandbox')
                return service.call({'request': 'consume', 'token': token})['handle'] > 0
            except (SystemExit, ConnectionError):
                return False

        def refused_as_nobody():
            os.chdir(self.world / 'run')  # the way there may be closed to nobody
            os.setgroups([])
            os.setgid(65534)
            os.setuid(65534)
            assert not accepted(token, Connection)

        token = fresh_token()
        self.assertTrue(accepted(token))
        self.world.kill_daemon()
        earlier, token = token, fresh_token()
        self.assertEqual([accepted(earlier), accepted(token)], [False, True])

        self.needs('setpriv', '--clear-groups', '--regid=65534', '--reuid=65534', 'true')
        for door in 'run', 'run/halvern.velto.vtd.sandbox':
            os.chmod(self.world / door, 0o777)
        self.fork(refused_as_nobody)


if __name__ == '__main__':
    main()
