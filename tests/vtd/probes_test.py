"""The daemon's static probes, as a debugger finds them: each under its name, fired with its arguments."""
import re

from world import VTD, WorldTest, main

ARGUMENTS = {'client-new': '%d', 'client-done': '%d', 'request-input': '%d %s', 'request': '%d %s', 'db-load': '%s %d',
             'request-output': '%d %s', 'discover-raw': '%d', 'plugin-add': '%s', 'plugin-remove': '%s %d',
             'plugin-ready': '%s'}
BREAK = 'break -probe-stap vtd:{0}\ncommands\nsilent\nprintf "{0} {1}\\n", {2}\n{3}\nend\n'


class ProbesTest(WorldTest):
    def test_each_fires_with_its_arguments(self):
        self.needs('gdb', '-batch', '-nx', '-ex', 'run', '-ex', 'quit $_exitcode', 'true')
        for name in 'one', 'two':
            self.world.install('system/PlugIns/' + name, {})
        script = 'set startup-with-shell off\nset print elements 0\n'
        for name, form in ARGUMENTS.items():
            types = ['(char *)' if kind == '%s' else '(int)' for kind in form.split()]
            values = ', '.join(f'{type}$_probe_arg{i}' for i, type in enumerate(types))
            script += BREAK.format(name, form, values, 'kill\nquit' if name == 'client-done' else 'continue')
        script += 'run -d ' + self.world.write('annotations', {'version': 15})
        script = self.world.write('script', script.encode())
        self.world.environment['DEBUGINFOD_URLS'] = ''
        debugger = self.world.begin('gdb', '-batch', '-nx', '-x', script, VTD)
        self.world.await_ready(debugger.pid)

        client = self.world.client()
        uuid, = client.uuids('one')
        client.ask('unheard of')
        for request, keys in ('add', {'paths': ['/']}), ('remove', {'paths': ['/']}), ('ready', {'uuids': [uuid]}):
            client.ask(request, **keys)
        client.process.communicate(timeout=60)

        expected = ['db-load Velto 7', f'client-new {client.pid}']
        for request, inner, reply in [
            ('match', ['discover-raw 2'], '.*matches.*'),
            ('unheard of', [], '.*unrecognized request.*'),
            ('add', ['plugin-add /'], '.*unable to register.*'),
            ('remove', ['plugin-remove / 1'], '.*no plugin at.*'),
            ('ready', ['plugin-ready ' + uuid['$uuid']], '.*'),
        ]:
            expected += [f'request-input {client.pid} .*{request}.*', f'request {client.pid} {request}', *inner,
                         f'request-output {client.pid} {reply}']
        expected.append(f'client-done {client.pid}')
        output, errors = debugger.communicate(timeout=60)
        fired = [line for line in output.decode().splitlines() if line.split(' ')[0] in ARGUMENTS]
        self.assertEqual(len(fired), len(expected), (output, errors))
        for line, pattern in zip(fired, expected):
            self.assertRegex(line, re.compile(f'^{pattern}$'))


if __name__ == '__main__':
    main()
