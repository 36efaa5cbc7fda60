#!/usr/bin/env python3
"""Makes a machine folder of machines/ from a sysfs capture of a real card.

    tools/import-captured-machine.py CAPTURE_DIR machines/NAME

A capture holds the card's sysfs files byte for byte as another project
recorded them, with the kernel's symbolic links written as small files that
hold the link's target ("../../devices/pci0000:00/0000:03:00.0/drm/card0").
The machine gets every captured file unchanged, those files turned back into
the links they stand for, and the capture's README (its provenance and
licence) with a section listing what the import added. A capture's ADDED
file may ask for a sequences file ("energy1_input moves on ... by N uJ per
refresh, K values"); the import writes it.
"""
import os
import re
import shutil
import sys


def is_link_file(path):
    if os.path.islink(path) or not os.path.isfile(path) or os.path.getsize(path) > 255:
        return None
    with open(path, 'rb') as f:
        data = f.read()
    if data.startswith(b'../') and b'\n' not in data and b'\0' not in data:
        return data.decode()
    return None


def copy_tree(capture, machine):
    links = []
    for root, dirs, files in os.walk(capture):
        rel = os.path.relpath(root, capture)
        if rel == '.':
            files = [f for f in files if f == 'sys']
            dirs[:] = [d for d in dirs if d == 'sys']
        os.makedirs(os.path.join(machine, rel), exist_ok=True)
        for name in files:
            source = os.path.join(root, name)
            target = os.path.join(machine, rel, name)
            link = is_link_file(source)
            if link is not None:
                os.symlink(link, target)
                links.append(os.path.normpath(os.path.join(rel, name)))
            else:
                shutil.copyfile(source, target)
    return sorted(links)


def energy_sequences(capture, machine):
    """The sequences an ADDED file asks for: "sequences  PATH moves on from its
    captured V uJ by STEP uJ per refresh, N values"."""
    added = os.path.join(capture, 'ADDED')
    if not os.path.exists(added):
        return []
    lines = []
    with open(added) as f:
        for line in f:
            m = re.match(r'sequences\s+(\S+) moves on from its captured (\d+) uJ by (\d+) uJ per '
                         r'refresh, (\d+) values', line)
            if not m:
                continue
            path, start, step, count = m.group(1), int(m.group(2)), int(m.group(3)), int(m.group(4))
            with open(os.path.join(machine, path)) as value:
                assert int(value.read()) == start, path
            values = ' '.join(str(start + i * step) for i in range(count))
            lines.append((path, start, step, count, values))
    if lines:
        with open(os.path.join(machine, 'sequences'), 'w') as f:
            f.write('# An energy counter moving on with each refresh (see the README).\n')
            for path, _, _, _, values in lines:
                f.write(f'{path}  {values}\n')
    return lines


def readme(capture, machine, links, sequences):
    with open(os.path.join(capture, 'README.md')) as f:
        text = f.read().rstrip('\n')
    text += '\n\n## Made into a machine of this project\n\n'
    text += ('`tools/import-captured-machine.py` copied every captured file of `sys/` unchanged '
             'and added only this:\n\n')
    text += '- the kernel\'s symbolic links, which the capture writes as files holding their target:\n'
    text += ''.join(f'  - `{link}`\n' for link in links)
    for path, start, step, count, _ in sequences:
        text += (f'- `sequences`: `{path}` takes {count} values from its captured {start} µJ, '
                 f'{step} µJ more with each refresh, so that a refresh reads a power from it '
                 '(made up, not captured)\n')
    with open(os.path.join(machine, 'README.md'), 'w') as f:
        f.write(text)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    capture, machine = sys.argv[1], sys.argv[2]
    if os.path.exists(machine):
        sys.exit(f'{machine} exists already')
    links = copy_tree(capture, machine)
    sequences = energy_sequences(capture, machine)
    readme(capture, machine, links, sequences)
    print(f'{machine}: {len(links)} links, {len(sequences)} sequences')


if __name__ == '__main__':
    main()
