#!/usr/bin/env python3
"""Lists the functions longer than a limit, longest first.

    python3 scripts/function-lengths.py LIMIT FILE_OR_FOLDER...
    python3 scripts/function-lengths.py 60 host tools
    python3 scripts/function-lengths.py 80 driver

A folder stands for the .cpp files below it.
A function is what the project's format makes of it: the signature, a line
holding only '{' in column 0 and the matching '}' (or '};') in column 0. Its
length counts from the first line of the signature to the closing brace.
Exit status 1 when some function is longer than LIMIT, so the check can gate.
"""
import pathlib
import sys


def signature_start(lines, brace):
    """First line of the signature above the body's opening brace."""
    j = brace - 1
    while j > 0:
        above = lines[j - 1]
        if not above.strip() or above.rstrip().endswith((';', '}', '{')):
            break
        if above.startswith(('//', '#')):
            break
        j -= 1
    return j


def functions(path):
    lines = open(path, encoding='utf-8').read().split('\n')
    i = 0
    while i < len(lines):
        if lines[i] == '{':
            start = signature_start(lines, i)
            end = i + 1
            while end < len(lines) and lines[end] not in ('}', '};'):
                end += 1
            yield end - start + 1, path, start + 1, lines[start].strip()[:90]
            i = end
        i += 1


def sources(args):
    for arg in args:
        path = pathlib.Path(arg)
        yield from sorted(path.rglob('*.cpp')) if path.is_dir() else [path]


def main():
    if len(sys.argv) < 2 or not sys.argv[1].isdigit():
        print('usage: function-lengths.py LIMIT FILE_OR_FOLDER...', file=sys.stderr)
        return 2
    limit = int(sys.argv[1])
    found = [f for p in sources(sys.argv[2:]) for f in functions(p) if f[0] > limit]
    for length, path, line, text in sorted(found, reverse=True):
        print(f'{length:4d} {path}:{line} {text}')
    return 1 if found else 0


if __name__ == '__main__':
    sys.exit(main())
