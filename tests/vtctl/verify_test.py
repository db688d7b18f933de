"""What `vtctl verify` says of what is wrong, played from broken.txt: every problem, with its rule, key and place."""
import json
import os
import re
import shutil

from world import WorldTest, main

HERE = os.path.dirname(os.path.abspath(__file__))


def change(dictionary, path, content=None):
    """Sets what stands at the path of keys, or removes it."""
    *above, key = path.split('/')
    for step in above:
        dictionary = dictionary.setdefault(step, {})
    if content is None:
        del dictionary[key]
    else:
        dictionary[key] = content


class VerifyTest(WorldTest):
    def lay_out(self, number, subject, edits):
        """Makes what is to be verified; its path."""
        path = {'plugin': f'{number}/x.appex', 'app': f'{number}/A.app', 'point': f'system/SDKs/p{number}.plist',
                'elsewhere': f'{number}/e.plist', 'file': f'{number}/file'}.get(subject, f'{number}/nothing')
        held, name = {}, os.path.basename(path)[:-6]
        info = {'KXExtension': {'KXExtensionProtocol': 'P', 'KXExtensionAttributes': {'KXExtensionPointName': name}}}
        if subject in ('plugin', 'app'):
            self.world.install(path, {'KXExtensionPointIdentifier': 'p'})
            info = {'QFBundleIdentifier': 'x', 'QFBundleExecutable': 'run', 'KXExtension': {'KXExtensionPointIdentifier': 'p'}}
        if subject == 'app':
            del info['KXExtension']
            self.world.install(path + '/PlugIns/x.appex', {'KXExtensionPointIdentifier': 'p'})
        later = []
        for edit in filter(None, map(str.strip, edits.split(';'))):
            if done := re.match(r'(E:)?([\w./-]+)=(.*)', edit):
                change(held if done.group(1) else info, done.group(2), json.loads(done.group(3)))
            elif edit.startswith('long '):
                info[edit[5:]] = list(range(600))
            elif edit.startswith('-'):
                change(info, edit[1:])
            else:
                later.append(edit.split(' ', 2))
        if subject in ('plugin', 'app'):
            self.world.write(path + '/Info.plist', info)
            if held:
                self.world.write(path + '/Entitlements.plist', held)
        elif subject != 'nowhere':
            self.world.write(path, info)
        for verb, *words in later:
            place = self.world / path if words[0] == 'this' else os.path.join(self.world / path, words[0])
            {'file': lambda: self.world.write(place, ''.join(words[1:]).encode()),
             'mode': lambda: os.chmod(place, int(words[1], 8)),
             'rm': lambda: shutil.rmtree(place) if os.path.isdir(place) else os.remove(place),
             'dir': lambda: os.mkdir(place),
             'copy': lambda: shutil.copytree(place, os.path.join(self.world / path, words[1])),
             'link': lambda: os.symlink(words[1], place)}[verb]()
        return self.world / path

    def test_every_problem_is_told_with_rule_key_and_place(self):
        self.world.write('system/SDKs/p.plist', {'KXExtension': {'KXExtensionProtocol': 'P'}})
        self.world.write('system/SDKs/broken.plist', b'no list')
        with open(os.path.join(HERE, 'broken.txt'), encoding='utf-8') as file:
            rows = [[cell.strip() for cell in line.split(' |')] for line in file if not line.startswith('#')]
        paths = [self.lay_out(number, row[0], row[1]) for number, row in enumerate(rows)]
        told = json.loads(self.world.vtctl('verify', '--json', *paths).stdout)
        met = set()
        for path, (subject, edits, *expected) in zip(paths, rows):
            with self.subTest(f'{subject} {edits}'):
                own = [one for one in told if (one['file'] + '/').startswith(path + '/')]
                said = [f'{one["rule"]} {one.get("key", "")}'.strip() for one in own]
                self.assertEqual(sorted(said), sorted(filter(None, map(str.strip, ','.join(expected).split(',')))))
                for one in own:
                    met.add(one['rule'])
                    self.assertTrue(one['what'] and one['remedy'])
                    if 'key' in one:  # its own line, or that of what it is missing from
                        with open(one['file'], encoding='utf-8') as file:
                            line = file.read().splitlines()[one['line'] - 1]
                        self.assertRegex(line[one['column'] - 1:], '^<(dict|key|string|integer)')
        self.assertGreater(len(rows), 60)
        rules = {line.split()[0] for line in self.world.vtctl('verify', '--rules').stdout.decode().splitlines()[1:]}
        self.assertEqual(met, rules, 'rules without a row')
        ran = self.world.vtctl('verify', '--sarif', *paths)
        run = json.loads(ran.stdout)['runs'][0]
        self.assertEqual([one['ruleId'] for one in run['results']], [one['rule'] for one in told])
        self.assertEqual({rule['id'] for rule in run['tool']['driver']['rules']}, rules)
        self.assertEqual(ran.returncode, 2)


if __name__ == '__main__':
    main()
