#!/usr/bin/env python3
"""Instructions a set of shared objects cost, from a callgrind output file.

  callgrind_cost.py OUT OBJECT [OBJECT ...]

Prints two numbers: the instructions executed in the named objects (matched by
substring of their path), plus everything those objects called outside the
set (libc's memcpy, the dynamic linker, ...), except calls into umockdev's
preload (the simulated usbfs stands in for the kernel) and into the main
executable (the application's own callbacks and the simulated reader); and
the part of that total spent copying bytes: calls to memcpy or memmove, and
the lines of the objects' own sources that copy with memcpy or memmove (a
compiler may expand such a copy inline).  Lines are found through the debug
information; an object without it copies through calls only or is not seen.
"""
import os
import re
import sys

EXCLUDED = ('libumockdev-preload', 'vgpreload_')
COPY_FUNCTION = re.compile(r'mem(cpy|move)')
COPY_LINE = re.compile(r'\bmem(cpy|move)\s*\(')
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

name_re = re.compile(r'^\((\d+)\)(?: (.*))?$')


def main():
    path, wanted = sys.argv[1], sys.argv[2:]
    names = {'ob': {}, 'fl': {}, 'fn': {}}
    space = {'ob': 'ob', 'cob': 'ob', 'fl': 'fl', 'fi': 'fl', 'fe': 'fl', 'cfi': 'fl', 'cfl': 'fl',
             'fn': 'fn', 'cfn': 'fn'}
    exe = None
    ob = cob = cfn = None
    source = None
    in_call = False
    last_line = 0
    total = copies = 0
    copy_lines = {}

    def resolve(kind, value):
        m = name_re.match(value)
        if not m:
            return value
        table = names[space[kind]]
        if m.group(2) is not None:
            table[m.group(1)] = m.group(2)
        return table.get(m.group(1), '?')

    def in_set(obj):
        return obj is not None and any(w in obj for w in wanted)

    def counted_callee(obj):
        if in_set(obj) or obj is None:
            return False  # its own lines are counted where they run
        if obj == exe or any(x in obj for x in EXCLUDED):
            return False
        return True

    def lines_of(f):
        """Line numbers of f that copy with memcpy/memmove (empty if unreadable)."""
        if f not in copy_lines:
            found = set()
            for p in (f, os.path.join(ROOT, f)):
                try:
                    with open(p, errors='replace') as src:
                        found = {i + 1 for i, t in enumerate(src) if COPY_LINE.search(t)}
                    break
                except OSError:
                    continue
            copy_lines[f] = found
        return copy_lines[f]

    for raw in open(path, errors='replace'):
        line = raw.rstrip('\n')
        if not line or line[0] == '#':
            continue
        if line.startswith('cmd:'):
            parts = line.split()
            exe = parts[1] if len(parts) > 1 else None
            continue
        key, eq, value = line.partition('=')
        if eq and key in space:
            v = resolve(key, value)
            if key == 'ob':
                ob = v
                cob = None
            elif key == 'cob':
                cob = v
            elif key == 'cfn':
                cfn = v
            elif key == 'fn':
                cob = None
            elif key in ('fl', 'fi', 'fe'):
                source = v
            continue
        if eq and key == 'calls':
            in_call = True
            continue
        if line[0] in '0123456789+-*':
            fields = line.split()
            pos = fields[0]
            if pos[0] == '+':
                last_line += int(pos[1:])
            elif pos[0] == '-':
                last_line -= int(pos[1:])
            elif pos != '*':
                last_line = int(pos)
            cost = int(fields[1]) if len(fields) > 1 else 0
            if in_call:
                callee = cob if cob is not None else ob
                if in_set(ob) and counted_callee(callee):
                    total += cost
                    if cfn is not None and COPY_FUNCTION.search(cfn):
                        copies += cost
                in_call = False
                cob = cfn = None
            elif in_set(ob):
                total += cost
                if source is not None and last_line in lines_of(source):
                    copies += cost
    print(total, copies)


if __name__ == '__main__':
    main()
