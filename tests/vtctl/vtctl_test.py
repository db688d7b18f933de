"""The tool as people and scripts use it, against the real daemon on a copy of the sample world."""
import json
import os
import plistlib
import pty
import re
import shutil
import signal
import socket
import subprocess

from world import EXAMPLES, VTCTL, WorldTest, main


class VtctlTest(WorldTest):
    def setUp(self):
        super().setUp()
        root = self.world.root
        shutil.copytree(EXAMPLES + '/world', root, dirs_exist_ok=True)
        # Its identifier goes on where that of Sketch's ends, and its name would drive a terminal.
        extra = shutil.copytree(root + '/user/Applications/Sketch.app', root + '/user/Applications/Extra.app')
        subprocess.run(['chmod', '-R', 'go-w', root], check=True)
        info = self.world.read_plist(extra + '/PlugIns/Note.appex/Info.plist')
        info.update(QFBundleIdentifier='example.sketch.note.extra', QFBundleDisplayName='Fine\u009b2J\u202e\x7f')
        self.world.write('user/Applications/Extra.app/PlugIns/Note.appex/Info.plist', info)
        self.world.start()
        self.emoji = root + '/system/PlugIns/Emoji.bundle'

    def found(self, *rules):
        return {form['identifier']: form for form in json.loads(self.world.vtctl('match', '--json', *rules).stdout)}

    def elections(self):
        stored = self.world.read('state/halvern.velto/Annotations')
        return {key: record['election'] for key, record in plistlib.loads(stored)['data'].items()} if stored else {}

    def check(self, arguments, status, out='', error='', **options):
        """Runs the tool; the texts are patterns that its output must hold, an empty one that there is none, None anything."""
        ran = self.world.vtctl(*arguments, **options)
        with self.subTest(arguments):
            self.assertEqual(ran.returncode, status, ran.stderr)
            for pattern, stream in ((out, ran.stdout), (error, ran.stderr)):
                if stream is not None and pattern is not None:
                    self.assertRegex(stream.decode(), re.compile(pattern if pattern else r'\A\Z', re.S))
        return ran

    def test_elections_are_of_the_plug_ins_that_the_words_name(self):
        uuid = self.found()['halvern.emoji']['uuid']
        none = '00000000-0000-4000-8000-000000000000'
        for arguments, status, out, error, elected in [
            (['enable', 'quick'], 0, 'halvern.quicknote: enabled', '', {'halvern.quicknote': 1}),
            (['disable', uuid.lower()], 0, 'halvern.emoji: disabled', '', {'halvern.emoji': 2}),
            (['default', 'quick', 'halvern.quicknote'], 0, r'^halvern\.quicknote: left to the default\n(.* with it, .*\n){2}$', '',
             {'halvern.quicknote': 0}),
            # Kept under what it replaces.
            (['enable', 'example.sketch.note'], 0,
             r'^example\.sketch\.note: enabled\n(.* with it, .*\n){2}$', '', {'halvern.quicknote': 1}),
            (['enable', 'example.postcard.share'], 0, r'^example\.postcard\.share: enabled\n$', '',  # two versions
             {'example.postcard.share': 1}),
            (['disable', self.found()['example.postcard.share']['uuid']], 0, r'^example\.postcard\.share: disabled\n$', '',
             {'example.postcard.share': 2}),
            # Nothing of these may change anything.
            (['disable', 'quick', 'sketch'], 2, '', r'"sketch" can be any.*\n.*note .*\n.*note\.extra .*\n.*nothing was changed', {}),
            (['disable', 'quick', ''], 2, '', 'no plug-in is called "".*vtctl match', {}),
            (['disable', 'quick', none], 1, '', 'nothing was changed', {}),
            (['disable'], 2, '', 'required', {}),
        ]:
            before = self.elections()
            self.check(arguments, status, out, error)
            self.assertEqual(self.elections(), {**before, **elected}, arguments)

    def test_exclusions_are_kept_beside_other_preferences(self):
        name = f'config/preferences/halvern.velto.userprefs.{socket.gethostname()}.plist'
        path = self.world.write(name, {'other': [1, 'two']})
        emoji = 'KXExtensionIdentifier=halvern.emoji'
        for arguments, status, out, error in [
            (['exclusions'], 0, '', 'no exclusions'),
            (['exclude', emoji], 0, '^1  ' + emoji, ''),
            (['exclude', 'A=true', 'B==true', 'C=x y', 'C=z'], 0, "^2  A=true B==true 'C=x y' C=z", ''),
            (['exclude', emoji], 0, '^1  ' + emoji, ''),
            (['exclude', 'novalue'], 2, '', 'no KEY=PATTERN'),
            (['exclude', b'A=\xff'], 2, '', 'not in UTF-8'),
            (['exclusions'], 0, r'\A1  .*\n2  .*\n\Z', ''),
            (['exclusions', '--json'], 0, r'"B": "=true",\s+"C": \[\s+"x y",\s+"z"', ''),
            (['include', '3'], 2, '', 'no exclusion 3.*2 there are'),
            (['include', '0'], 2, '', 'no exclusion 0'),
            (['include', 'one'], 2, '', 'one'),
            (['include', '2'], 0, 'no longer excluded: A=true', ''),
        ]:
            self.check(arguments, status, out, error)
        self.assertEqual(self.world.read_plist(name),
                         {'other': [1, 'two'], 'exclusions': [{'KXExtensionIdentifier': 'halvern.emoji'}]})
        self.world.write(name, {'exclusions': 'all'})
        for arguments in ['exclusions'], ['exclude', emoji], ['include', '1']:
            self.check(arguments, 2, '', 'not as a list')

    def test_a_hold_lasts_as_long_as_its_command(self):
        match = [VTCTL, 'match', 'KXExtensionIdentifier=halvern.emoji']
        for command, status, out, error in [
            (match, 0, '', 'no plug-in matches'),
            (['sh', '-c', 'exit 3'], 3, '', ''),
            (['sh', '-c', 'kill -KILL $$'], 128 + signal.SIGKILL, '', ''),
            (['no-such-program'], 127, '', 'cannot run no-such-program: No such file'),
            (['/etc/passwd'], 126, '', 'cannot run /etc/passwd: Permission denied'),
            ([], 2, '', 'no command'),
        ]:
            self.check(['hold', os.path.relpath(self.emoji), '--', *command], status, out, error,
                       preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))  # as some parents leave it
            self.check(match[1:], 0, 'halvern.emoji')
        for arguments, status, error in [
            (['hold', '/nowhere', '--', 'true'], 1, 'invalid path: /nowhere.*\n.*--app'),
            (['hold', self.world.root + '/user', '--', 'true'], 1, 'no plug-in at path'),
            (['hold', '--app', self.world.root + '/user', '--', 'true'], 0, 'nothing there is on hold'),
            (['unhold', 'x'], 2, 'no token'),
        ]:
            self.check(arguments, status, '', error)

    def test_signals_reach_the_command_once_and_it_decides(self):
        trap = "n=10; trap 'n=$((n+1))' USR1; trap 'exit $n' TERM; echo up; while :; do sleep 0.02; done"
        hold = self.world.begin(VTCTL, 'hold', self.emoji, '--', 'sh', '-c', trap)
        self.assertEqual(hold.stdout.readline(), b'up\n')
        for sent in signal.SIGUSR1, signal.SIGTERM:
            hold.send_signal(sent)
        hold.communicate(timeout=20)
        self.assertEqual(hold.returncode, 11)

        # What the terminal sends has reached the command by itself.
        pid, terminal = pty.fork()
        if pid == 0:
            count = "n=0; trap 'n=$((n+1))' INT; echo up; while [ $n = 0 ]; do sleep 0.02; done; sleep 0.2; exit $n"
            os.execve(VTCTL, [VTCTL, 'hold', self.emoji, '--', 'sh', '-c', count], self.world.environment)
        self.assertIn(b'up', os.read(terminal, 100))
        os.write(terminal, b'\x03')
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), 1)
        os.close(terminal)

    def test_a_hold_without_a_command_lasts_until_it_is_interrupted_or_released(self):
        for turn, end in enumerate([signal.SIGINT, signal.SIGTERM] * 4):
            hold = self.world.begin(VTCTL, 'hold', self.emoji)
            hold.stdout.readline()
            if turn == 0:  # the others are interrupted at once
                self.assertNotIn('halvern.emoji', self.found())
            hold.send_signal(end)
            self.assertEqual(hold.communicate(timeout=20), (b'', b''))
            self.assertEqual(hold.returncode, 0)
            self.assertIn('halvern.emoji', self.found())
        hold = self.world.begin(VTCTL, 'hold', '--app', self.world.root + '/user/Applications/Postcard.app')
        token = hold.stdout.readline().decode().strip()
        self.assertNotIn('example.postcard.stamps', self.found())
        self.check(['unhold', token], 0)
        self.assertIn('example.postcard.stamps', self.found())
        self.check(['hold', self.emoji], 1, error='cannot write', stdout=None, preexec_fn=lambda: os.close(1))
        self.assertIn('halvern.emoji', self.found())

    def test_a_hold_that_the_daemon_takes_with_it_is_told(self):
        for command, status in ([], 7), (['--', 'cat'], 7), (['--', 'sh', '-c', 'cat; exit 4'], 4):
            hold = self.world.begin(VTCTL, 'hold', self.emoji, *command, stdin=subprocess.PIPE)
            if command:
                hold.stdin.write(b'held\n')
                hold.stdin.flush()
            hold.stdout.readline()
            self.world.kill_daemon()
            self.assertIn(b'the daemon went away', hold.stderr.readline())
            self.assertEqual((hold.communicate(timeout=20)[0], hold.returncode), (b'', status))
            self.world.start()
            self.assertIn('halvern.emoji', self.found())

    def test_a_refused_hold_names_what_is_busy(self):
        postcard = self.world.root + '/user/Applications/Postcard.app'
        with self.world.make_busy('example.postcard.share'):
            self.check(['hold', '--app', postcard, '--', 'true'], 1, '',
                       'plug-ins are busy.*\n.*busy: example.postcard.share\n.*without --app')
            self.check(['hold', postcard + '/PlugIns/Share.appex', '--', 'true'], 0)

    def test_ready_stays_and_says_what_is_registered_for_it(self):
        host = self.world.begin(VTCTL, 'ready', 'lingua.keyboard', 'emoji')
        line = host.stdout.readline().decode()
        self.assertRegex(line, fr'example\.lingua\.keyboard: registered in .*/services/{host.pid}/.*\.plist')
        self.assertEqual(host.stdout.readline(), b'halvern.emoji: ready; nothing to start\n')
        registration = line.split(' in ')[1].strip()
        self.assertTrue(os.path.exists(registration))
        shutil.rmtree(self.world.root + '/user/Applications/7C2B4D1E')
        self.eventually(lambda: not os.path.exists(registration), 'it is withdrawn')
        host.terminate()
        self.assertEqual((host.communicate(timeout=20), host.returncode), ((b'', b''), 0))

        services = self.world.root + '/run/services/'
        ran = self.check(['ready', '--json', 'quick', '--', 'sh', '-c', f'ls {services}$PPID'], 0, r'\]\n.*plist\n')
        [told] = json.loads(ran.stdout[:ran.stdout.rindex(b']') + 1])
        self.assertEqual(told['executable'], self.world.root + '/system/PlugIns/QuickNote.bundle/QuickNote')
        self.eventually(lambda: not os.listdir(services), 'it goes with the command')
        form = self.found()['halvern.quicknote']
        for arguments, status, error in [
            (['ready', 'lingua.keyboard'], 2, 'no plug-in is called'),
            (['ready', 'frames.oval'], 1, 'cannot obtain executable path.*\n.*may have been.*\n.*no-executable-key'),
            (['hold', form['path'], '--', VTCTL, 'ready', form['uuid']], 1, 'on hold.*\n.*none of the plug-ins'),
            (['ready', 'quick', '--', 'no-such-program'], 127, 'cannot run'),
            (['ready', 'e'], 2, 'can be any.*nothing was made ready'),
        ]:
            self.check(arguments, status, None, error)
        [older] = [f['uuid'] for f in json.loads(self.world.vtctl('match', '--json', '--flags', '5').stdout) if '/Backup/' in f['path']]
        self.check(['exclude', 'KXExtensionIdentifier=halvern.quicknote'], 0, '1')
        for arguments, out in [(['ready', older, '--', 'true'], 'postcard.share: registered in .*plist'),
                               (['ready', form['uuid'], '--', 'true'], 'registered in .*quicknote.*plist'),
                               (['access', '--open', older, 'Info.plist'], 'example.postcard.share')]:
            self.check(arguments, 0, out, '')

    def test_a_file_of_a_plug_in_is_read_through_its_token(self):
        content = self.world.read(self.emoji + '/Info.plist')
        for name in 'Info.plist', self.emoji + '/Info.plist':
            self.assertEqual(self.check(['access', '--open', 'emoji', name], 0, None).stdout, content)
        for arguments, status, out, error in [
            (['access', 'emoji', 'quick'], 0, r'\A\S+\n\S+\n\Z', ''),
            (['access', '--json', 'emoji'], 0, '"token": .*"identifier": "halvern.emoji"', ''),
            (['access', '--open', 'emoji'], 2, '', 'takes a plug-in and the path'),
            (['access', '--open', 'emoji', 'missing'], 1, '', 'missing'),
            (['access', '--open', 'emoji', '../QuickNote.bundle/Info.plist'], 1, '', 'QuickNote'),
            (['access', '--open', 'emoji', '/etc/passwd'], 1, '', '/etc/passwd'),
        ]:
            self.check(arguments, status, out, error)

    def test_plug_ins_are_registered_by_paths_from_the_current_directory(self):
        place = self.world.root + '/elsewhere'
        shutil.copytree(EXAMPLES + '/world/system/PlugIns/Emoji.bundle', place + '/New.bundle')
        for arguments, status, error in [
            (['add', 'New.bundle'], 0, 'no containing application'),
            (['remove', './New.bundle'], 0, ''),
            (['remove', 'New.bundle'], 1, f'no plugin at {place}/New.bundle.*\n.*only what `vtctl add`'),
            (['add', 'New.bundle', 'Missing.bundle'], 1, f'invalid plugin path: {place}/Missing.bundle'),
            (['add', '.'], 1, 'unable to register'),
            (['add', ''], 2, 'empty'),
            (['add', b'\xff'], 2, 'not in UTF-8'),
        ]:
            self.check(arguments, status, '', error, cwd=place)

    def test_rules_and_requests_are_read_from_files_and_from_json_of_all_kinds_of_values(self):
        emoji = {'KXExtensionIdentifier': 'halvern.emoji'}
        for content, more, status, out, error in [
            (emoji, [], 0, r'\A[^\n]*\nhalvern.emoji [^\n]*\n\Z', ''),
            (json.dumps(emoji).encode(), [], 0, r'\A[^\n]*\nhalvern.emoji [^\n]*\n\Z', ''),
            (emoji, ['KXExtensionIdentifier=halvern.quicknote'], 0, 'quicknote', ''),
            ([emoji], [], 2, '', '/rules holds no dictionary'),
            (b'', [], 2, '', '/rules: '),
        ]:
            self.check(['match', '--rules', self.world.write('rules', content), *more], status, out, error)

        extension = {'data': [{'$data': text} for text in ('', 'AA==', 'AP8=', '/+8A')], 'real': {'$real': 1.0},
                     'date': {'$date': '2001-02-03T04:05:06Z'}}
        sent = {**extension, 'date': {'$date': '2001-02-03T06:35:06+02:30'}}
        uuids = [{'$uuid': self.found()['halvern.emoji']['uuid']}]
        for call, status, out, error in [
            ({'uuids': uuids, 'annotations': {'extension': sent}}, 0, '{}', ''),
            ({'version': None}, 1, 'unsupported protocol version 0', ''),
            ({'uuids': None}, 2, '', '"uuids": null'),
            ({'uuids': [{'$uuid': 'x'}]}, 2, '', r'\$uuid cannot be read'),
            ({'x': {'$data': 'A==='}}, 2, '', r'\$data cannot be read'),
            ({'x': {'$date': '2001-02-03'}}, 2, '', r'\$date cannot be read'),
            ({'x': {'$real': '1'}}, 2, '', r'\$real takes a number'),
        ]:
            self.check(['call', 'annotate', json.dumps(call)], status, out, error)
        self.assertEqual(self.found()['halvern.emoji']['annotations'], {'extension': extension})

    def test_nothing_from_a_bundle_reaches_the_terminal_as_a_control_character(self):
        for arguments in ['match'], ['match', '--json'], ['enable', 'sketch']:
            ran = self.world.vtctl(*arguments)
            self.assertIn('Fine', ran.stdout.decode() + ran.stderr.decode())
            self.assertNotRegex(ran.stdout.decode() + ran.stderr.decode(), '[\x00-\x09\x0b-\x1f\x7f-\x9f\u202a-\u202e]')
        self.assertIn('Fine\u009b2J\u202e\x7f', {f.get('localizedDisplayName') for f in self.found().values()})

    def test_output_that_cannot_be_written_is_an_error(self):
        with open('/dev/full', 'wb') as full:
            self.check(['match'], 1, error='cannot write', stdout=full)
        self.check(['match'], 1, error='cannot write', stdout=None, preexec_fn=lambda: os.close(1))
        reader, writer = os.pipe()
        os.close(reader)
        self.check(['match'], -signal.SIGPIPE, stdout=writer)
        os.close(writer)

    def test_a_daemon_that_is_not_there_is_told_from_a_refusal(self):
        self.world.kill_daemon()
        for arguments in (['match'], ['enable', 'quick'], ['add', '/x'], ['-S', 'other', 'match'], ['hold', '/x'],
                          ['access', 'quick'], ['unhold', '00000000-0000-4000-8000-000000000000']):
            self.check(arguments, 7, '', 'is the daemon running')

    def test_a_service_that_says_nothing_is_not_waited_for_for_ever(self):
        with socket.socket(socket.AF_UNIX) as silent:
            silent.bind(self.world.root + '/run/silent')
            silent.listen()
            for verb in ['match'], ['access', 'x'], ['call', 'match']:
                self.check(['-S', 'silent', '--timeout', '0.1', *verb], 7, '', 'no answer within 0.1 s')

    def test_each_line_has_an_answer_whatever_becomes_of_the_connection(self):
        client = self.world.client()
        self.assertIn('matches', client.ask('match'))
        self.world.kill_daemon()
        for request, outcome in ('match', 'unknown'), (None, 'not sent'), ('match', 'unknown'):
            self.assertEqual(client.ask(request)['outcome'], outcome)
        self.world.start()
        self.assertIn('matches', client.ask('match'))


if __name__ == '__main__':
    main()
