#!/usr/bin/env python3
"""Mutation run for tarnel_util: mutates library sources one site at a time,
rebuilds the shared library, runs the given test executables, and records
which mutants the tests kill.

usage: scripts/mutate.py --tree WORKTREE --build BUILD_DIR --files FILE...
                 --tests TEST... [--out result.json] [--limit N] [--order K]

BUILD_DIR is a configured build of WORKTREE (any preset; a plain one is
fastest: cmake -S . -B build/mut -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTN_SANITIZE= ).
The tests must be built once in BUILD_DIR before the run; they link the
shared library, so each mutant rebuilds only the library.
The result file maps "file:line:col:operator" to "killed", "survived",
"timeout" (counted as killed) or "build" (mutant does not compile; ignored).
"""
import argparse, json, os, random, re, subprocess, sys

OPS = [
    ('<=', '<'), ('>=', '>'), ('==', '!='), ('!=', '=='),
    ('&&', '||'), ('||', '&&'),
    ('+ 1', '+ 0'), ('- 1', '- 0'), ('+= 1', '+= 2'),
    ('return 1;', 'return 0;'), ('return 0;', 'return 1;'),
    ('return true;', 'return false;'), ('return false;', 'return true;'),
]
LT = re.compile(r'(?<![<>=!-])<(?![<=])')
GT = re.compile(r'(?<![<>=-])>(?![>=])')

def sites(path):
    out = []
    in_block = False
    for n, line in enumerate(open(path).read().split('\n'), 1):
        s = line.strip()
        if in_block:
            if '*/' in s: in_block = False
            continue
        if s.startswith('/*'):
            in_block = '*/' not in s
            continue
        if not s or s.startswith('//') or s.startswith('#'):
            continue
        code = line.split('//')[0]
        for a, b in OPS:
            i = code.find(a)
            while i >= 0:
                out.append((n, i, a, b))
                i = code.find(a, i + 1)
        for m in LT.finditer(code):
            if ' < ' in code[m.start()-1:m.end()+1]:
                out.append((n, m.start(), '<', '<='))
        for m in GT.finditer(code):
            if ' > ' in code[m.start()-1:m.end()+1]:
                out.append((n, m.start(), '>', '>='))
        # drop a whole statement that is a plain call
        if re.match(r'^\s*[A-Za-z_:][\w:.>-]*\(.*\);\s*$', code) and not s.startswith('return'):
            out.append((n, 0, 'STMT', ''))
    return out

def apply(text, n, col, a, b):
    lines = text.split('\n')
    line = lines[n - 1]
    if a == 'STMT':
        lines[n - 1] = re.sub(r'\S.*', ';', line)
    else:
        assert line[col:col + len(a)] == a
        lines[n - 1] = line[:col] + b + line[col + len(a):]
    return '\n'.join(lines)

def run(cmd, cwd, timeout):
    try:
        p = subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=timeout)
        return p.returncode
    except subprocess.TimeoutExpired:
        return 'timeout'

def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--tree', required=True)
    ap.add_argument('--build', required=True)
    ap.add_argument('--files', nargs='+', required=True)
    ap.add_argument('--tests', nargs='+', required=True)
    ap.add_argument('--out', default='mutants.json')
    ap.add_argument('--limit', type=int, default=0, help='sample at most N mutants per file')
    ap.add_argument('--order', type=int, default=1, help='which sample --limit draws; the same number draws the same sites')
    ap.add_argument('--timeout', type=int, default=60)
    args = ap.parse_args()
    exes = {}
    for root, _, files in os.walk(args.build):
        for f in files:
            if f in args.tests and os.access(os.path.join(root, f), os.X_OK):
                exes[f] = os.path.join(root, f)
    missing = set(args.tests) - set(exes)
    if missing: sys.exit('not built: %s' % ' '.join(sorted(missing)))
    build = ['cmake', '--build', args.build, '--target', 'tarnel_util', '-j2']
    if run(build, args.tree, 600) != 0: sys.exit('the unmutated library does not build')
    for t in args.tests:
        if run([exes[t]], args.tree, args.timeout * 3) != 0: sys.exit('%s fails without mutation' % t)
    results = {}
    total = {'killed': 0, 'survived': 0, 'timeout': 0, 'build': 0}
    for f in args.files:
        path = os.path.join(args.tree, f)
        original = open(path).read()
        ss = sites(path)
        if args.limit and len(ss) > args.limit:
            random.Random(args.order).shuffle(ss)
            ss = sorted(ss[:args.limit])
        try:
            for n, col, a, b in ss:
                key = '%s:%d:%d:%s->%s' % (f, n, col, a, b)
                open(path, 'w').write(apply(original, n, col, a, b))
                if run(build, args.tree, 600) != 0:
                    verdict = 'build'
                else:
                    verdict = 'survived'
                    for t in args.tests:
                        rc = run([exes[t]], args.tree, args.timeout)
                        if rc == 'timeout': verdict = 'timeout'; break
                        if rc != 0: verdict = 'killed'; break
                results[key] = verdict
                total[verdict] += 1
                print(verdict.ljust(9), key, flush=True)
        finally:
            open(path, 'w').write(original)
            os.utime(path)
    run(build, args.tree, 600)
    json.dump(results, open(args.out, 'w'), indent=1, sort_keys=True)
    print('totals:', total)

if __name__ == '__main__':
    main()
