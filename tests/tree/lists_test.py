"""Lists that stand in two places, compared: what the code has, and what documents and build files say that it has.

Usage: lists_test.py ROOT VTCTL
"""
import glob
import os
import re
import subprocess
import sys
import unittest

ROOT, VTCTL = sys.argv[1:3]


def read(*names):
    text = ''
    for name in names:
        with open(os.path.join(ROOT, name), encoding='utf-8') as file:
            text += file.read()
    return text


def sources(*folders):
    names = [name for folder in folders for ending in ('h', 'cpp')
             for name in glob.glob(f'{folder}/**/*.{ending}', root_dir=ROOT, recursive=True)]
    return read(*sorted(names))


def first_column(page, header):
    """What the first cells of the table under a header name in backticks, quotes or nothing."""
    lines = page[page.index(header):].splitlines()[2:]
    rows = lines[:next((number for number, line in enumerate(lines) if not line.startswith('|')), len(lines))]
    return [line.split('|')[1].strip() for line in rows]


class Lists(unittest.TestCase):
    def test_every_gate_is_described_in_its_order_and_with_its_scope(self):
        gates = re.search(r'Gate kInOrder\[kCount\] = \{(.*?)\n\};', read('vtd/gates/Gates.cpp'), re.S).group(1)
        in_code = [(name, scope == 'always') for name, scope in re.findall(r'"([\w ]+)", Gate::Scope::(\w+)', gates)]
        table = read('doc/architecture.md')
        table = table[table.index('| gate |'):].split('\n\n')[0].splitlines()[2:]
        cells = [[cell.strip() for cell in line.split('|')] for line in table]
        self.assertEqual(in_code, [(cell[1], cell[3] == 'yes') for cell in cells])
        self.assertGreater(len(in_code), 7)

    def test_every_request_has_a_handler_a_file_and_a_row(self):
        namespace = re.search(r'namespace VTRequest \{(.*?)\}', read('Velto/VTProtocol.h'), re.S).group(1)
        requests = re.findall(r'char (\w+)\[\] = "(\w+)"', namespace)
        self.assertEqual({name for name, _ in requests},
                         set(re.findall(r'\{VTRequest::(\w+), &Transaction::', read('vtd/Transaction.cpp'))))
        self.assertEqual({name.capitalize() + '.cpp' for name, _ in requests}, set(os.listdir(os.path.join(ROOT, 'vtd/requests'))))
        self.assertEqual({name for name, _ in requests},
                         set(re.findall(r'\{VTRequest::(\w+), \[', read('fuzz/RequestGenerator.cpp'))))
        rows = {re.match(r'`"(\w+)"`', cell).group(1) for cell in first_column(read('doc/wire.md'), '| request | further')}
        self.assertEqual({text for _, text in requests}, rows)

    def test_every_verb_and_option_is_in_the_manual(self):
        def options(*verb):
            shown = subprocess.run([VTCTL, *verb, '--help'], capture_output=True, text=True, check=True).stdout
            return shown, set(re.findall(r'^  (?:-\w,)?(--[\w-]+)', shown, re.M)) - {'--help', '--version'}
        shown, found = options()
        verbs = re.findall(r'^  ([a-z]+) ', shown.split('Subcommands:')[1], re.M)
        manual = read('doc/man/vtctl.1.scd')
        synopsis = manual.split('# SYNOPSIS')[1].split('\n# ')[0]
        self.assertEqual(set(verbs), set(re.findall(r'\*([a-z]+)\*', synopsis)) - {'vtctl'})
        for verb in verbs:
            self.assertRegex(manual.split('# SYNOPSIS')[1], rf'\n\*.*\b{verb}\b', 'a verb without a text')
            found |= options(verb)[1]
        missing = {option for option in found if option not in manual}
        self.assertEqual(missing - {'--service'}, set(), 'options that the manual does not have')
        self.assertEqual(set(re.findall(r'(?<![\w-])--[a-z]+', manual)) - found, set(), 'options that no verb has')

    def test_every_key_and_rule_of_a_bundle_is_in_the_tool_and_on_the_page(self):
        page = read('doc/plugin.md')

        def listed(option, column):
            shown = subprocess.run([VTCTL, 'verify', option], capture_output=True, text=True, check=True).stdout
            return {re.split('  +', line)[column] for line in shown.splitlines()[1:]}

        def named(header):
            return {name for cell in first_column(page, header) for name in re.findall('`(.*?)`', cell)}
        keys = listed('--keys', 1)
        documented = named('| key | kind | missing') | named("| key | kind | what it does |\n|---|---|---|\n| `KXExtensionIdentifier`")
        documented |= named("| key | kind | what it does |\n|---|---|---|\n| `KXExtensionVersion`") | named('| key | kind | of')
        self.assertEqual(keys - {'EnvironmentVariables'}, documented)
        in_code = set(re.findall(r'char \w+\[\] =\s+"(\w[\w.-]+)";', read('Velto/VTInfoKeys.h')))
        in_code |= set(re.findall(r'char k\w+Key\[\] = "(\w+)"', read('platform/bundle/Bundle.h')))
        in_code |= set(re.findall(r'char k\w+Entitlement\[\] = "([\w.-]+)"', sources('vtd')))
        self.assertEqual(keys - in_code, {'KXExtensionIdentifier', 'EnvironmentVariables'})
        self.assertEqual(in_code - keys, {'QFBundleInfoPlistURL'})  # which the daemon takes out
        self.assertEqual(listed('--rules', 0), named('| rule |'))
        self.assertEqual(subprocess.run([os.path.join(ROOT, 'script/manual'), '--check']).returncode, 0)

    def test_every_file_that_is_named_in_the_code_is_documented(self):
        named = set(re.findall(r'"/?([A-Za-z.-]+\.(?:plist|db))"', sources('platform', 'vtd')))
        page = read('doc/platform.md')
        self.assertEqual({name for name in named if name not in page}, set())
        self.assertGreater(len(named), 5)

    def test_every_fuzz_target_is_built_and_has_a_corpus(self):
        listed = re.search(r'foreach\(target (.*?)\)', read('fuzz/CMakeLists.txt')).group(1).split()
        files = [name[5:-6] for name in os.listdir(os.path.join(ROOT, 'fuzz')) if name.startswith('fuzz_')]
        self.assertEqual([sorted(listed)] * 2, [sorted(files), sorted(os.listdir(os.path.join(ROOT, 'fuzz/corpus')))])


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
