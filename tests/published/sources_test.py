#!/usr/bin/env python3
"""Compares the texts in the daemon's sources with the table of everything published, both ways.

The sources are preprocessed, so that a text is seen as the compiler joins it. A literal that ends a line, or
is printed, must be the format of a row once what it leaves to "%s" is filled in; a piece of a text (it has a
blank) must occur in a row. Every row of a text must be written somewhere.

Usage: sources_test.py COMPILER ROOT
"""
import os
import re
import subprocess
import sys

FOLDERS = ('core', 'store', 'rtmsg', 'nexthop', 'hw', 'api')
TEXT_KINDS = ('text', 'log', 'printed', 'console')


def preprocessed(compiler, root):
    files = sorted(os.path.join(folder, name) for folder in FOLDERS
                   for name in os.listdir(os.path.join(root, folder)) if name.endswith('.cpp'))
    # NDEBUG: conditions of assertions are not texts. -w: files define macros of the same name.
    command = compiler.split() + ['-std=c++20', '-E', '-w', '-DNDEBUG', '-I', root, '-x', 'c++', '-']
    source = ''.join(f'#undef TRACE\n#include "{name}"\n' for name in files)
    return subprocess.run(command, input=source, capture_output=True, text=True, check=True, cwd=root).stdout


def literals(code, root):
    """(file, text in C escapes) of every string literal of the daemon, adjacent ones joined."""
    name, found = '', {}
    own = tuple(os.path.join(root, folder) + os.sep for folder in FOLDERS) + tuple(f + '/' for f in FOLDERS)
    chunk = []

    def flush():
        if not name.startswith(own):
            return
        for match in re.finditer(r'"(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*', ' '.join(chunk)):
            text = ''.join(re.findall(r'"((?:[^"\\]|\\.)*)"', match.group()))
            found.setdefault(text, os.path.relpath(os.path.join(root, name), root))

    for line in code.splitlines():
        marker = re.match(r'# \d+ "([^"]*)"', line)
        if marker and marker.group(1) != name:
            flush()
            name, chunk = marker.group(1), []
        elif not marker:
            chunk.append(line)
    flush()
    return found


def table(root):
    """The texts of the rows, in C escapes, with their lines."""
    rows = {}
    with open(os.path.join(root, 'tests/published/published.txt')) as lines:
        for number, line in enumerate(lines, 1):
            kind = line.split(' ', 1)[0]
            if kind in TEXT_KINDS:
                text = line[line.index('"') + 1:line.split(' -- unreachable')[0].rindex('"')]
                rows[re.sub(r': %\*\\n$', '', text)] = number  # perror's own words
    return rows


def form_of(text):
    """What a literal leaves open: "%s" and "%.*s" take anything, what puts adds may follow."""
    return re.sub(r'%(?:\\\.\\\*)?s', '.*', re.escape(text)) + (r'(?:\\n)?' if text.endswith('\\r') else '')


def main():
    compiler, root = sys.argv[1], os.path.abspath(sys.argv[2])
    rows = table(root)
    written, complaints = set(), []
    found = literals(preprocessed(compiler, root), root)
    if len(found) < 150:
        complaints.append(f'only {len(found)} literals found')
    for text, file in sorted(found.items()):
        form = re.compile(form_of(text))
        whole = {row for row in rows if form.fullmatch(row)}
        is_line = re.search(r'\\[rn]', text) is not None
        is_piece = not is_line and ' ' in text and any(text in row for row in rows)
        if not re.match(r'(%(\.\*)?s)+(\\[rn])*$', text):
            written |= whole
        if is_piece:  # put together and printed with "%s"
            written |= {row for row in rows if row.startswith(text)}
        if (is_line or ' ' in text) and not whole and not is_piece:
            complaints.append(f'{file}: no row for "{text}"')
    for row, number in rows.items():
        if row not in written:
            complaints.append(f'published.txt:{number}: written nowhere: "{row}"')
    print('\n'.join(complaints) or f'{len(found)} literals, {len(rows)} texts')
    return 1 if complaints else 0


if __name__ == '__main__':
    sys.exit(main())
