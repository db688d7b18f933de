#!/usr/bin/env python3
"""Starts a plug-in that a host has readied: a whole starter but for the confinement, written from doc/platform.md alone.

Usage: start.py RUNTIME-DIRECTORY HOST-PID PLUG-IN [ARGUMENT...]

Becomes the plug-in, which is named by its UUID or, where the bundle holds but one, by the path of its bundle: the
executable that the daemon has registered for the host, with exactly the environment of the registration. A real starter is a service: it takes the pid from the socket that the host asks on,
and confines the process by the profile before it lets go of it.
"""
import os
import plistlib
import stat
import sys

PROFILES = ('plugin', 'keyboard', 'network-filter')


def start_time(pid):
    """When the process started, in clock ticks since boot; None when it has ended."""
    try:
        with open(f'/proc/{pid}/stat', 'rb') as status:
            fields = status.read().rpartition(b')')[2].split()  # the name before it may hold anything
    except OSError:
        return None
    return None if fields[0] in b'ZX' else int(fields[19])


def registrations(runtime, host):
    """What the daemon has registered for the host."""
    directory = os.path.join(runtime, 'services', host)
    try:
        names = sorted(os.listdir(directory))
    except FileNotFoundError:
        return
    for name in names:
        if not name.endswith('.plist'):
            continue  # a registration that is just being written
        try:
            with open(os.path.join(directory, name), 'rb') as file:
                registration = plistlib.load(file)
        except FileNotFoundError:
            continue  # withdrawn since
        except Exception as error:  # one that this reader cannot take must not stop the others
            print(f'{name}: {error}', file=sys.stderr)
            continue
        yield registration


def boot():
    """Which boot of the machine start times count from."""
    with open('/proc/sys/kernel/random/boot_id') as identifier:
        return identifier.read().strip()


def registration_of(runtime, host, plug_in):
    found = [registration for registration in registrations(runtime, host)
             if plug_in in (registration['uuid'], os.path.dirname(registration['executable']))]
    if not found:
        sys.exit(f'the process {host} has not readied the plug-in {plug_in}')
    if len(found) > 1:
        sys.exit(f'{plug_in} holds several plug-ins, name one by its UUID: ' +
                 ', '.join(f"{one['uuid']} ({one['plugIn']})" for one in found))
    if (found[0]['boot'], found[0]['hostStartTime']) != (boot(), start_time(host)):
        sys.exit(f'the process {host} is not the one that readied the plug-in')
    return found[0]


def main():
    if len(sys.argv) < 4 or not sys.argv[2].isdecimal():
        sys.exit(__doc__)
    runtime, host, plug_in, *arguments = sys.argv[1:]
    registration = registration_of(runtime, host, plug_in)
    service = registration['overlay']['MoxService']
    if service['_SandboxProfile'] not in PROFILES:
        sys.exit(f"there is no sandbox profile {service['_SandboxProfile']}")

    # What is checked is what is run, whatever is put in its place meanwhile.
    path = registration['executable']
    executable = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK)
    if not stat.S_ISREG(os.fstat(executable).st_mode):
        sys.exit(f'{path} is not a regular file')
    os.set_inheritable(executable, True)  # the interpreter of a script opens it once more
    os.execve(executable, [path, *arguments], service['EnvironmentVariables'])


if __name__ == '__main__':
    main()
