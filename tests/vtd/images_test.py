"""What the daemon keeps of plug-ins over restarts never shows them as they were."""
import os
import shutil

from world import WorldTest, main

A, B = 'user/Applications/A.app/PlugIns/a.appex', 'user/Applications/A.app/PlugIns/b.appex'
SDK, OTHER_SDK = 'system/SDKs/point.plist', 'system/SDKs/other.plist'
IMAGES = 'state/Registry.images'


def edit(world, path, old, new, times=True):
    """In place, of the same length and with the old times put back."""
    assert len(old) == len(new)
    status = os.stat(world / path)
    content = world.read(path)
    assert old in content
    with open(world / path, 'r+b') as file:
        file.write(content.replace(old, new))
    if times:
        os.utime(world / path, ns=(status.st_atime_ns, status.st_mtime_ns))


def exchange(world, one, other):
    for here, there in (one, 'aside'), (other, one), ('aside', other):
        os.rename(world / here, world / there)


def damage(world, at):
    content = bytearray(world.read(IMAGES))
    content[at] ^= 1
    world.write(IMAGES, bytes(content))


CHANGES = {
    'nothing': lambda w: None,
    'one comes': lambda w: w.install('user/Applications/C.app/PlugIns/c.appex', {}),
    'one goes': lambda w: shutil.rmtree(w / A),
    'one is another version': lambda w: w.install(A, {'KXExtensionAttributes': {'KXExtensionVersion': '9'}}),
    'one is edited in place': lambda w: edit(w, A + '/Info.plist', b'first', b'other', times=False),
    'the same with the old times': lambda w: edit(w, A + '/Info.plist', b'first', b'other'),
    'two bundles are exchanged': lambda w: exchange(w, A, B),
    'two lists are exchanged': lambda w: exchange(w, A + '/Info.plist', B + '/Info.plist'),
    'the application gets a name': lambda w: w.write('user/Applications/A.app/Info.plist', {'QFBundleDisplayName': 'N'}),
    'the application is another': lambda w: os.rename(w / 'user/Applications/A.app', w / 'user/Applications/B.app'),
    'a display name': lambda w: w.install(A, {}, QFBundleDisplayName='Shown'),
    'entitlements come': lambda w: w.write(A + '/Entitlements.plist', {'halvern.developer.replace-plugin': 'b'}),
    'the SDK is edited': lambda w: edit(w, SDK, b'merged', b'MERGED'),
    'the SDK goes': lambda w: os.unlink(w / SDK),
    'the SDK is no list': lambda w: w.write(SDK, b'<plist'),
    'an SDK comes': lambda w: w.write(OTHER_SDK, {'KXExtension': {'More': 1}}),
    'one becomes two': lambda w: w.install(A, {'Multiple': {name: {'KXExtensionProtocol': 'P'} for name in 'xy'}}),
    'one is not usable': lambda w: w.install(A, {'EmbeddedCode': 'x'}),
    'the images go': lambda w: os.unlink(w / IMAGES),
    'the images are cut': lambda w: os.truncate(w / IMAGES, os.path.getsize(w / IMAGES) - 100),
    'the images are no file': lambda w: (os.unlink(w / IMAGES), os.mkdir(w / IMAGES)),
    'their header is damaged': lambda w: damage(w, 9),
    'an image is damaged': lambda w: damage(w, 200),
    'the registry begins anew': lambda w: os.unlink(w / 'state/Registry.db'),
}


class ImagesTest(WorldTest):
    def found(self):
        """Forms by their identifiers, without what is new with each registration or process."""
        forms = self.world.client().found()
        for form in forms.values():
            for key in 'uuid', 'lastmodified', 'overrider':
                form.pop(key, None)
            form['extensions'] = set(form.get('extensions', {}))
        return forms

    def test_all_are_found_where_nothing_can_be_kept(self):
        os.makedirs(self.world / IMAGES)
        keys = {f'key{number}': number for number in range(3000)}
        for number in range(300):  # which take longer than one turn
            self.world.install(f'system/PlugIns/p{number}', {'KXExtensionAttributes': keys})
        self.world.start()
        for _ in range(2):
            self.assertEqual(len(self.world.client().found()), 300)

    def test_what_is_found_is_what_is_there_however_it_changed_meanwhile(self):
        for name, change in CHANGES.items():
            with self.subTest(name):
                shutil.rmtree(self.world / 'user', ignore_errors=True)
                shutil.rmtree(self.world / 'system', ignore_errors=True)
                shutil.rmtree(self.world / 'state', ignore_errors=True)
                self.world.install(A, {'KXExtensionPointIdentifier': 'point', 'Text': 'first'})
                self.world.install(B, {'KXExtensionPointIdentifier': 'other'})
                self.world.write(SDK, {'KXExtension': {'KXExtensionAttributes': {'Text': 'merged'}}})
                self.world.start()
                self.assertEqual(set(self.found()), {'a', 'b'})
                self.world.kill_daemon()
                change(self.world)

                self.world.take_lines()
                self.world.start()
                found = self.found()
                self.assertLessEqual(len(self.world.take_lines('image')), 1)
                self.world.kill_daemon()
                # The truth: what a daemon finds that has never seen any of it.
                shutil.rmtree(self.world / 'state')
                self.world.start()
                self.assertEqual(found, self.found())
                self.world.kill_daemon()


if __name__ == '__main__':
    main()
