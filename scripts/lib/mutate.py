#!/usr/bin/python3
"""Mutants of the library's sources, made from their syntax tree (libclang).

  mutate.py gen ROOT OUT --sample N --rng K [--equivalent FILE] [--only REGEX]
      writes one JSON mutant a line to OUT, a random sample of all of them
      (the same N and K give the same sample while the sources do not change);
  mutate.py apply MUTANTS INDEX SRC_ROOT
      writes mutant INDEX's file into the copy SRC_ROOT (the original first);
  mutate.py subset MUTANTS RESULTS EQUIVALENT
      the mutants of an earlier run that it got through;
  mutate.py todo MUTANTS RESULTS
      index, key, file, line, change of each mutant still to run;
  mutate.py report MUTANTS RESULTS [OTHER_RESULTS]
      per file and in total: valid, caught, surviving, score; the survivors;
      per test case the mutants it catches and those only it catches.

A mutant's key (file|function|original|replacement|n) does not depend on line
numbers, so the list of equivalent mutants survives edits elsewhere.
"""
import argparse
import collections
import glob
import json
import os
import random
import re
import sys

import clang.cindex as ci

SOURCES = r'^(util|common|buginf|errmsg|vobrel_xos|runtime|platform)/src/[^/]+\.cpp$'
SWAPS = {'<': ['<=', '>'], '<=': ['<', '>'], '>': ['>=', '<'], '>=': ['>', '<'],
         '==': ['!='], '!=': ['=='], '&&': ['||'], '||': ['&&'], '+': ['-'], '-': ['+'],
         '+=': ['-='], '-=': ['+='], '&': ['|'], '|': ['&'], '*': ['/'], '<<': ['>>'], '>>': ['<<']}
K = ci.CursorKind


def load_libclang():
    libs = sorted(glob.glob('/usr/lib/llvm-*/lib/libclang-*.so.1')) + sorted(glob.glob('/usr/lib/llvm-*/lib/libclang.so'))
    if libs and not ci.Config.loaded:
        ci.Config.set_library_file(libs[-1])


class Gen:
    def __init__(self, root, rel):
        self.rel, self.path = rel, os.path.join(root, rel)
        with open(self.path, 'rb') as f:
            self.text = f.read()
        args = ['-x', 'c++', '-std=c++20', '-I', root, '-I', os.path.join(root, 'include'),
                '-D_FILE_OFFSET_BITS=64', '-D_GNU_SOURCE']
        self.tu = ci.Index.create().parse(self.path, args=args)
        self.out, self.seen = [], collections.Counter()

    def mine(self, c):
        loc = c.extent.start
        return loc.file is not None and loc.file.name == self.path and c.extent.end.file is not None

    def src(self, a, b):
        return self.text[a:b].decode('utf-8', 'replace')

    def add(self, func, a, b, repl, op):
        orig = self.src(a, b)
        if orig == repl or '\n' in orig and len(orig) > 200:
            return
        # Keys and descriptions are one line each: the run reads them tab-separated, a line a mutant.
        flat = ' '.join(repl.split())
        base = '%s|%s|%s|%s' % (self.rel, func, ' '.join(orig.split()), flat)
        self.seen[base] += 1
        line = self.text[:a].count(b'\n') + 1
        self.out.append({'key': '%s|%d' % (base, self.seen[base]), 'file': self.rel, 'line': line,
                         'start': a, 'end': b, 'repl': repl, 'op': op,
                         'desc': '%s -> %s' % (' '.join(orig.split())[:60], flat[:60])})

    def token_at(self, offset, within):
        for t in self.tu.get_tokens(extent=within.extent):
            if t.extent.start.offset >= offset:
                return t
        return None

    def visit(self, c, func, parent):
        if c.kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE) and c.is_definition():
            func = c.spelling
        if func and self.mine(c):
            self.mutate(c, func, parent)
        for ch in c.get_children():
            self.visit(ch, func, c)

    def mutate(self, c, func, parent):
        a, b = c.extent.start.offset, c.extent.end.offset
        kids = list(c.get_children())
        if c.kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR) and len(kids) == 2:
            t = self.token_at(kids[0].extent.end.offset, c)
            if t is not None and t.spelling in SWAPS and t.extent.end.offset <= kids[1].extent.start.offset:
                for r in SWAPS[t.spelling]:
                    self.add(func, t.extent.start.offset, t.extent.end.offset, r, 'operator')
        elif c.kind == K.INTEGER_LITERAL:
            tok = self.src(a, b)
            m = re.fullmatch(r'(0x[0-9a-fA-F]+|0|[1-9]\d*)([uUlL]*)', tok)
            if m:
                v = int(m.group(1), 0)
                for nv in (v + 1, v - 1):
                    if nv >= 0:
                        self.add(func, a, b, (hex(nv) if tok.startswith('0x') else str(nv)) + m.group(2), 'literal')
        elif c.kind == K.UNARY_OPERATOR and self.src(a, a + 1) == '!' and kids:
            self.add(func, a, b, self.src(kids[0].extent.start.offset, kids[0].extent.end.offset), 'negation')
        elif c.kind in (K.IF_STMT, K.WHILE_STMT) and kids:
            cond = kids[0]
            ca, cb = cond.extent.start.offset, cond.extent.end.offset
            if self.mine(cond) and cond.kind != K.VAR_DECL:
                self.add(func, ca, cb, '!(%s)' % self.src(ca, cb), 'condition')
        elif c.kind == K.CALL_EXPR and parent is not None and parent.kind == K.COMPOUND_STMT:
            self.add(func, a, b, '(void)0', 'call')
        elif c.kind == K.RETURN_STMT and kids:
            e = kids[0]
            ea, eb = e.extent.start.offset, e.extent.end.offset
            kind = e.type.get_canonical().kind
            text = self.src(ea, eb)
            if kind == ci.TypeKind.POINTER and text not in ('nullptr', 'NULL'):
                self.add(func, ea, eb, 'nullptr', 'return')
            elif kind == ci.TypeKind.BOOL:
                self.add(func, ea, eb, '!(%s)' % text, 'return')
            elif kind in (ci.TypeKind.INT, ci.TypeKind.UINT, ci.TypeKind.LONG, ci.TypeKind.ULONG,
                          ci.TypeKind.UCHAR, ci.TypeKind.SCHAR, ci.TypeKind.CHAR_S, ci.TypeKind.USHORT, ci.TypeKind.SHORT):
                self.add(func, ea, eb, '1' if text in ('0', 'FALSE', 'false') else '0', 'return')

    def run(self):
        self.visit(self.tu.cursor, None, None)
        # Two visits of one spot (a macro argument, say) are one mutant.
        uniq = {}
        for m in self.out:
            uniq.setdefault((m['start'], m['end'], m['repl']), m)
        return list(uniq.values())


def read_equivalent(path):
    keys = {}
    if path and os.path.exists(path):
        for ln in open(path, encoding='utf-8'):
            if ln.strip() and not ln.startswith('#'):
                key, _, why = ln.rstrip('\n').partition('\t')
                keys[key] = why
    return keys


def gen(args):
    load_libclang()
    files = sorted(f for f in os.popen('git -C %s ls-files' % args.root).read().split()
                   if re.match(SOURCES, f) and re.search(args.only, f))
    every = []
    for rel in files:
        every += Gen(args.root, rel).run()
    rng = random.Random(args.rng)
    pick = every if args.sample >= len(every) else rng.sample(every, args.sample)
    eq = read_equivalent(args.equivalent)
    # In random order, so that a run stopped early is still a fair sample.
    with open(args.out, 'w', encoding='utf-8') as f:
        for m in pick:
            m['equivalent'] = eq.get(m['key'])
            f.write(json.dumps(m) + '\n')
    print('%d mutants in %d files, %d sampled (rng start %d), %d of them listed as equivalent'
          % (len(every), len(files), len(pick), args.rng, sum(1 for m in pick if m['equivalent'] is not None)))


def load(path):
    return [json.loads(ln) for ln in open(path, encoding='utf-8') if ln.strip()]


def apply(args):
    m = load(args.mutants)[args.index]
    with open(os.path.join(args.root_orig, m['file']), 'rb') as f:
        text = f.read()
    out = text[:m['start']] + m['repl'].encode() + text[m['end']:]
    with open(os.path.join(args.src, m['file']), 'wb') as f:
        f.write(out)


def subset(args):
    done = {r['key'] for r in load(args.results) if args.caught is False or r['status'] == 'caught'}
    eq = read_equivalent(args.equivalent)
    for m in load(args.mutants):
        if m['key'] in done or m['key'] in eq:
            m['equivalent'] = eq.get(m['key'])
            print(json.dumps(m))


def todo(args):
    done = {r['key'] for r in load(args.results)}
    for i, m in enumerate(load(args.mutants)):
        if m.get('equivalent') is None and m['key'] not in done:
            print('\t'.join([str(i), m['key'], m['file'], str(m['line']), m['desc'].replace('\t', ' ')]))


def forget_survivors(args):
    """Drops the survivors' results, so that a resumed run tries them again."""
    kept = [r for r in load(args.results) if r['status'] != 'survived']
    with open(args.results, 'w') as f:
        f.writelines(json.dumps(r) + '\n' for r in kept)


def report(args):
    muts = {m['key']: m for m in load(args.mutants)}
    # Judged equivalent since the run: skipped in its report too.
    for key, why in read_equivalent(os.path.join(os.path.dirname(__file__), '..', 'mutation-equivalent.txt')).items():
        if key in muts:
            muts[key]['equivalent'] = why
    res = {}
    both = {r['key'] for r in load(args.common)} if args.common else None
    for r in load(args.results):
        if both is None or r['key'] in both:
            res[r['key']] = r
    per = collections.OrderedDict()
    catches = collections.defaultdict(set)
    survivors, eqs = [], []
    for key, m in sorted(muts.items(), key=lambda kv: (kv[1]['file'], kv[1]['line'])):
        r = res.get(key)
        if r is None:
            continue
        s = per.setdefault(m['file'], collections.Counter())
        if m.get('equivalent') is not None:
            s['equivalent'] += 1
            eqs.append(m)
            continue
        if r['status'] == 'invalid':
            s['invalid'] += 1
            continue
        s['valid'] += 1
        if r['status'] == 'caught':
            s['caught'] += 1
            for t in r['failed']:
                catches[t].add(key)
        else:
            survivors.append(m)
    tot = collections.Counter()
    print('%-40s %6s %6s %9s %6s %6s %5s' % ('file', 'valid', 'caught', 'surviving', 'score', 'equiv', 'bad'))
    for f, s in per.items():
        tot.update(s)
        print(row(f, s))
    print(row('total', tot))
    print('\nsurvivors (%d):' % len(survivors))
    for m in survivors:
        print('  %s:%d  [%s] %s\n      key: %s' % (m['file'], m['line'], m['op'], m['desc'], m['key']))
    if eqs:
        print('\nskipped as equivalent (%d):' % len(eqs))
        for m in eqs:
            print('  %s:%d  %s  (%s)' % (m['file'], m['line'], m['desc'], m['equivalent']))
    owners = collections.Counter()
    for t, ks in catches.items():
        for k in ks:
            owners[k] += 1
    print('\nper test case: mutants caught, caught by it alone')
    for t, ks in sorted(catches.items(), key=lambda kv: (-len(kv[1]), kv[0])):
        only = sorted(k for k in ks if owners[k] == 1)
        print('  %4d %4d  %s' % (len(ks), len(only), t))
        for k in only:
            print('             only: %s:%d %s' % (muts[k]['file'], muts[k]['line'], muts[k]['desc']))


def row(name, s):
    v = s['valid']
    score = '%5.1f%%' % (100.0 * s['caught'] / v) if v else '    -'
    return '%-40s %6d %6d %9d %6s %6d %5d' % (name, v, s['caught'], v - s['caught'], score, s['equivalent'], s['invalid'])


def main():
    p = argparse.ArgumentParser()
    sub = p.add_subparsers(dest='cmd', required=True)
    g = sub.add_parser('gen')
    g.add_argument('root'), g.add_argument('out')
    g.add_argument('--sample', type=int, default=300)
    g.add_argument('--rng', type=int, default=1)
    g.add_argument('--equivalent')
    g.add_argument('--only', default='')
    a = sub.add_parser('apply')
    a.add_argument('mutants'), a.add_argument('index', type=int), a.add_argument('root_orig'), a.add_argument('src')
    r = sub.add_parser('report')
    r.add_argument('mutants'), r.add_argument('results'), r.add_argument('common', nargs='?')
    u = sub.add_parser('subset')
    u.add_argument('mutants'), u.add_argument('results'), u.add_argument('equivalent')
    u.add_argument('--caught', action='store_true', help='only the mutants the run caught')
    t = sub.add_parser('todo')
    t.add_argument('mutants'), t.add_argument('results')
    sub.add_parser('forget-survivors').add_argument('results')
    args = p.parse_args()
    {'gen': gen, 'subset': subset, 'apply': apply, 'todo': todo, 'report': report,
     'forget-survivors': forget_survivors}[args.cmd](args)


if __name__ == '__main__':
    sys.exit(main())
