#!/usr/bin/env python3
"""Instructions a set of shared objects cost, from a callgrind output file.

  callgrind_cost.py OUT OBJECT [OBJECT ...]

Prints one number: the instructions executed in the named objects (matched by
substring of their path), plus everything those objects called outside the
set (libc's memcpy, the dynamic linker, ...), except calls into umockdev's
preload (the simulated usbfs stands in for the kernel) and into the main
executable (the application's own callbacks and the simulated reader).
"""
import re
import sys

EXCLUDED = ('libumockdev-preload', 'vgpreload_')

name_re = re.compile(r'^\((\d+)\)(?: (.*))?$')


def main():
    path, wanted = sys.argv[1], sys.argv[2:]
    names = {'ob': {}, 'fl': {}, 'fn': {}}
    space = {'ob': 'ob', 'cob': 'ob', 'fl': 'fl', 'fi': 'fl', 'fe': 'fl', 'cfi': 'fl', 'cfl': 'fl',
             'fn': 'fn', 'cfn': 'fn'}
    exe = None
    ob = cob = None
    in_call = False
    total = 0

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
            elif key == 'fn':
                cob = None
            continue
        if eq and key == 'calls':
            in_call = True
            continue
        if line[0] in '0123456789+-*':
            fields = line.split()
            cost = int(fields[1]) if len(fields) > 1 else 0
            if in_call:
                callee = cob if cob is not None else ob
                if in_set(ob) and counted_callee(callee):
                    total += cost
                in_call = False
                cob = None
            elif in_set(ob):
                total += cost
    print(total)


if __name__ == '__main__':
    main()
