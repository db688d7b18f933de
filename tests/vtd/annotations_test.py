"""What the file of annotations is taken for, and when the daemon writes it. On real file systems of the test's own."""
import json
import os
import plistlib
import re
import signal
import subprocess
import sys

from world import VTD, WorldTest, main


class AnnotationsTest(WorldTest):
    def setUp(self):
        super().setUp()
        for name in 'one', 'two':
            self.world.install('system/PlugIns/' + name, {})

    def start(self, path):
        self.world.start('-d', path)
        self.client = self.world.client()
        return self.world.take_lines(path)

    def annotate(self, *names, **annotations):
        self.assertEqual(self.client.ask('annotate', uuids=self.client.uuids(*names), annotations=annotations), {})

    def test_whatever_the_file_holds_is_taken_for_what_it_is_and_nothing_is_destroyed(self):
        stored = {'one': {'election': 1}}
        sound = {'version': 16, 'data': stored}
        for name, content, line, loads in [
            ('missing', None, '', True),
            ('sound', sound, '', True),
            ('version as text', {**sound, 'version': '16'}, '', True),
            ('older', {**sound, 'version': 15}, 'error:found database version 15 needed version 16 (resetting)', False),
            ('unversioned', {'data': stored}, 'error:found database version 0 needed version 16 (resetting)', False),
            ('a list', [], 'found database version 0 needed version 16', False),
            ('torn', plistlib.dumps(sound)[:-30], '(resetting)', False),
            ('no data', {'version': 16}, 'ignoring what is no annotation', False),
            ('odd data', {'version': 16, 'data': 'x'}, 'ignoring what is no annotation', False),
            ('odd record', {'version': 16, 'data': {'odd': True, **stored}}, 'ignoring what is no annotation', True),
        ]:
            with self.subTest(name):
                path = self.world / name
                before = None if content is None else self.world.read(self.world.write(name, content))
                lines = self.start(path)
                self.assertEqual([line in said for said in lines], [True] if line else [], lines)
                kept = stored if content is not None and loads else {}
                self.assertEqual(self.client.found()['one']['annotations'], kept.get('one', {}))
                self.assertEqual(self.world.read(path), before, 'untouched until the first save')
                for election in 0, 2:
                    self.annotate('two', election=election)
                self.assertEqual(self.world.read_plist(path), {'version': 16, 'data': {**kept, 'two': {'election': 2}}})
                copies = [file for file in os.listdir(self.world.root) if file.startswith(name + '.unreadable')]
                self.assertEqual(copies, [name + '.unreadable-1'] if line else [])
                self.assertEqual(self.world.read(path + '.unreadable-1'), before if line else None)
                self.world.kill_daemon()

    def test_what_is_there_is_not_written_again_unless_somebody_spoilt_it(self):
        path = self.world / 'annotations'
        self.start(path)
        posts = 'run/notify/halvern.velto.annotation-change'
        self.annotate('one', election=1)
        file, posted = os.stat(path).st_ino, int(self.world.read(posts))
        self.annotate('one', election=1)
        self.assertEqual(os.stat(path).st_ino, file)
        self.assertEqual(int(self.world.read(posts)), posted + 1)
        self.annotate('one', election=True)
        self.assertIs(self.world.read_plist(path)['data']['one']['election'], True)
        self.annotate('one', 'one', 'two', election=1)
        self.assertEqual(int(self.world.read(posts)), posted + 4)
        self.world.write('annotations', b'spoilt')
        self.annotate('one', election=1)
        self.assertEqual(self.world.read_plist(path)['data'], {'one': {'election': 1}, 'two': {'election': 1}})

    def test_it_is_read_when_it_is_there_and_no_two_daemons_have_it(self):
        for name, path, real, prepare in [
            ('directory', 'later/Annotations', 'later/Annotations', lambda at: None),
            ('link', 'link', 'target/Annotations', lambda at: os.symlink('target/Annotations', at)),
            ('moved', 'moved/Annotations', 'moved/Annotations', lambda at: os.mkdir(os.path.dirname(at))),
        ]:
            with self.subTest(name):
                path, real = self.world / path, self.world / real
                prepare(path)
                self.start(path)
                if name == 'moved':
                    os.rename(os.path.dirname(path), self.world / 'away')
                self.annotate('one', election=2)
                self.assertEqual(len(self.world.take_lines('unable to save annotations')), 1)
                stored = {'one': {'election': 1, 'x': 1}, 'two': {'election': 3}}
                self.world.write(real, {'version': 16, 'data': stored})
                self.annotate('two', extension={'y': 1})
                stored = {'one': {'election': 2, 'x': 1}, 'two': {'election': 3, 'extension': {'y': 1}}}
                self.assertEqual(self.world.read_plist(real)['data'], stored)
                self.assertEqual(self.client.found()['two']['annotations'], stored['two'])
                other = subprocess.run([VTD, '-d', real], env={'HALVERN_ROOT': self.world / 'other'},
                                       stderr=subprocess.PIPE, text=True, timeout=20)
                self.assertEqual(other.returncode, 1)
                self.assertIn(f'process {self.world.daemon.pid} holds the lock', other.stderr)
                self.world.kill_daemon()

    def test_what_is_no_file_ends_the_daemon_and_stays(self):
        for name, make in ('pipe', os.mkfifo), ('directory', os.mkdir), ('link', lambda at: os.symlink('/dev/null', at)):
            with self.subTest(name):
                path = self.world / name
                make(path)
                before = os.lstat(path)
                ended = subprocess.run([VTD, '-d', path], env=self.world.environment, stderr=subprocess.PIPE, timeout=20)
                self.assertEqual(ended.returncode, 1)
                self.assertIn(f'annotations cannot be kept in {path}: it is no regular file', ended.stderr.decode())
                after = os.lstat(path)
                self.assertEqual((after.st_ino, after.st_mode, after.st_ctime_ns),
                                 (before.st_ino, before.st_mode, before.st_ctime_ns))

    def test_a_claim_of_a_bundle_is_a_key_only_if_it_could_be_an_identifier(self):
        stored = {}
        for name, claimed in [('replacing', 'other'), ('longest', 'k' * 1024), ('long', 'k' * 1025), ('odd', 'a\tb')]:
            self.world.install('system/PlugIns/' + name, {})
            self.world.write(f'system/PlugIns/{name}/Entitlements.plist', {
                'halvern.developer.replace-plugin': claimed, 'halvern.developer.auto-elect-plugin': True})
            stored[claimed if name in ('replacing', 'longest') else name] = {'election': 1}
        path = self.world / 'annotations'
        self.start(path)
        posts = self.world.read('run/notify/halvern.velto.annotation-change')
        self.client.found()
        self.assertEqual(self.world.read_plist(path)['data'], stored)
        self.assertEqual(self.world.read('run/notify/halvern.velto.annotation-change'), posts)

    def test_a_save_that_fails_is_answered_logged_and_made_up_for(self):
        if 'MOUNTS_OF_ITS_OWN' not in os.environ:
            self.skipTest('no mounts to be had here')
        for number, (reason, spoil, mend, remains) in enumerate([
            ('No space left on device', 'cat /dev/zero >"$0/ballast"', 'rm "$0/ballast"', True),
            ('Read-only file system', 'mount --bind "$0" "$0"; mount -o remount,bind,ro "$0"', 'umount -l "$0"', True),
            ('Is a directory', 'rm "$0/Annotations" && mkdir "$0/Annotations"', 'rmdir "$0/Annotations"', False),
            ('No such file or directory', 'umount -l "$0" && rmdir "$0"', 'mkdir "$0"', False),
        ]):
            with self.subTest(reason):
                def run(command):
                    subprocess.run(['sh', '-c', command, os.path.dirname(path)], stderr=subprocess.DEVNULL)
                path = f'{self.world.root}/{number}/Annotations'
                os.mkdir(os.path.dirname(path))
                run('mount -t tmpfs -o size=64k none "$0"')
                self.start(path)
                self.annotate('one', election=1)
                before = self.world.read(path)
                run(spoil)
                for started_on_it in False, False, reason != 'Is a directory':
                    if started_on_it:
                        self.world.kill_daemon()
                        self.start(path)
                    self.world.take_lines()
                    self.annotate('one', election=2, extension={'x': 'x' * 9000})
                    line, = self.world.take_lines(f'unable to save annotations:{path} error:')
                    self.assertIn(reason, line)
                self.assertEqual(self.world.read(path), before if remains else None)
                run(mend)
                self.annotate('two', election=1)
                stored = self.world.read_plist(path)['data']
                self.assertEqual((stored['one']['election'], stored['two']['election']), (2, 1))
                self.assertLessEqual(set(os.listdir(os.path.dirname(path))), {'Annotations', 'Annotations.lock'})
                self.world.kill_daemon()
                run('umount -l "$0"')

    def test_a_damaged_file_is_kept_once_however_often_the_daemon_starts_on_a_full_disk(self):
        if 'MOUNTS_OF_ITS_OWN' not in os.environ:
            self.skipTest('no mounts to be had here')
        directory = os.path.dirname(self.world.write('full/Annotations', b''))
        subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=64k', 'none', directory], check=True)
        self.world.write('full/Annotations', b'damaged')
        subprocess.run(['sh', '-c', 'cat /dev/zero >"$0/ballast"', directory], stderr=subprocess.DEVNULL)
        for _ in range(3):
            self.start(directory + '/Annotations')
            self.annotate('one', election=1)
            self.assertEqual(len(self.world.take_lines('No space left on device')), 1)
            self.world.kill_daemon()
        kept = {'Annotations', 'Annotations.lock', 'Annotations.unreadable-1', 'ballast'}
        self.assertEqual(set(os.listdir(directory)), kept)
        subprocess.run(['umount', '-l', directory], check=True)

    def test_what_no_file_can_hold_does_not_keep_the_rest_from_being_saved(self):
        info = {'QFBundleIdentifier': 'odd\x01', 'KXExtension': {'KXExtensionProtocol': '#Data'}}
        self.world.write('system/PlugIns/odd/Info.plist', plistlib.dumps(info, fmt=plistlib.FMT_BINARY))
        path = self.world / 'annotations'
        self.start(path)
        for name, said in ('odd\x01', 1), ('one', 0), ('odd\x01', 0):
            self.annotate(name, election=1)
            self.assertEqual(len(self.world.take_lines(f'unable to save annotations:{path} error:')), said)
        self.assertEqual(self.world.read_plist(path)['data'], {'one': {'election': 1}})
        file = os.stat(path).st_ino
        self.annotate('one', election=1)
        self.assertEqual(os.stat(path).st_ino, file, 'what is there is not written again')

    def test_directories_are_there_for_good_before_anybody_is_answered(self):
        self.needs('strace', '-o', '/dev/null', 'true')
        state = self.world / 'above/state'
        environment = {'XDG_STATE_HOME': state, 'XDG_RUNTIME_DIR': self.world.root, 'HOME': self.world.root}
        subprocess.run(['strace', '-f', '-y', '-e', 'trace=mkdir,fsync', '-o', self.world / 'trace', VTD, '-S', 'no/name'],
                       env=environment, stderr=subprocess.DEVNULL, timeout=60)
        calls = self.world.read('trace').decode()
        for name in state, state + '/halvern', state + '/halvern/halvern.velto':
            made = calls.index(f'mkdir("{name}", 0700) = 0')
            self.assertIn(f'<{os.path.dirname(name)}>) = 0', calls[made:], name)

    def test_what_was_answered_is_kept_wherever_the_daemon_is_killed(self):
        self.needs('strace', '-o', '/dev/null', 'true')
        path, trace = self.world / 'annotations', self.world / 'trace'

        def annotate(election, *injected):
            """With the daemon traced: whether it answered, and the calls of the thread that saved, numbered."""
            self.start(path)
            request = {'request': 'annotate', 'uuids': self.client.uuids('one', 'two'),
                       'annotations': {'election': election}}
            tracer = self.world.begin('strace', '-f', '-o', trace, '-p', str(self.world.daemon.pid), *injected)
            said = tracer.stderr.readline()
            if b'attached' not in said:
                self.skipTest(said.decode())
            answer, _ = self.client.process.communicate(json.dumps(request).encode(), timeout=20)
            answered = json.loads(answer) == {}
            if not answered:
                self.assertEqual(json.loads(answer)['outcome'], 'unknown')
                self.assertEqual(self.world.daemon.wait(timeout=20), -signal.SIGKILL)
            self.world.kill_daemon()
            tracer.communicate()
            calls = re.findall(r'^(\d+) +(\w+)\(', self.world.read(trace).decode(), re.M)
            names = [name for thread, name in calls if (thread, 'fsync') in calls]
            return answered, [(name, names[:i + 1].count(name)) for i, name in enumerate(names)]

        election, unanswered = 1, 0
        answered, calls = annotate(election)
        self.assertTrue(answered)
        order = [name for name, _ in calls if name in ('fsync', 'renameat', 'sendto')]
        self.assertEqual(order, ['fsync', 'renameat', 'fsync', 'sendto'])
        for name, number in calls:
            with self.subTest(call=name, number=number):
                answered, _ = annotate(election + 1, '-e', f'inject={name}:signal=KILL:when={number}')
                stored = self.world.read_plist(path)['data']
                self.assertEqual(stored['one'], stored['two'])
                stored = stored['one']['election']
                self.assertIn(stored, [election + 1] if answered else [election, election + 1])
                election, unanswered = stored, unanswered + (not answered)
        print(f'{unanswered} of {len(calls)} killed the daemon before it answered')
        self.assertGreater(unanswered, calls.index(('sendto', 1)) / 2)


if __name__ == '__main__':
    for how in ('-m', '-rm') if 'MOUNTS_OF_ITS_OWN' not in os.environ else ():
        if subprocess.call(['unshare', how, 'mount', '-t', 'tmpfs', 'none', '/tmp'], stderr=subprocess.DEVNULL) == 0:
            os.environ['MOUNTS_OF_ITS_OWN'] = how
            os.execvp('unshare', ['unshare', how, sys.executable, *sys.argv])
    main()
