#!/usr/bin/env python3
"""Tests of the generator itself: the sample schema's output against the
checked-in golden files, and schemas it must refuse with their exact message.

After an intended change of the generated code, regenerate the golden files
with `python3 gant/gen/test_gantgen.py --regenerate` and review their diff."""
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
GEN = os.path.join(HERE, 'gantgen.py')
SAMPLE = os.path.join(HERE, '..', 'testlib', 'Sample.gant')
GOLDEN = {'header': os.path.join(HERE, 'golden', 'Sample.h.golden'),
          'source': os.path.join(HERE, 'golden', 'Sample.gen.cpp.golden')}


def generate(schema, out, cwd=None):
    paths = {k: os.path.join(out, k) for k in GOLDEN}
    p = subprocess.run([sys.executable, GEN, schema, '--header', paths['header'], '--source', paths['source'],
                        '--include', 'gant/testlib/Sample.h'], cwd=cwd, capture_output=True, text=True)
    return p, paths


# (schema lines after the namespace, the message for bad.gant)
BAD = [
    ('value V [orderd]', 'bad.gant:2: unknown option orderd for value V'),
    ('value V\n   a : U32 [hashd]', 'bad.gant:3: unknown option hashd for value attribute a'),
    ('entity E\n   a : U32 [dec]', 'bad.gant:3: unknown option dec for value attribute a'),
    ('value V\n   a : U32 [error="x"]', 'bad.gant:3: error without range for a'),
    ('value V\n   a : U32 [handset]', "bad.gant:3: handset only on an entity's attribute a"),
    ('scalar S : U16 [range=5]', 'bad.gant:2: range=LOW..HIGH expected'),
    ('value V\n   a : U32 [range=1..]', 'bad.gant:3: range=LOW..HIGH expected'),
    ('value V\n   counter c : U8', 'bad.gant:3: counter not allowed in a value type'),
    ('value V\n   ref r : V', 'bad.gant:3: ref not allowed in a value type'),
    ('entity E\n   a : U32[4]', 'bad.gant:3: fixed-size array not allowed in an entity'),
    ('entity E : B\n   pond p : R', 'bad.gant:2: entity E with a base cannot hold pond collections'),
    ('value V\n   set s : U32[4]', 'bad.gant:3: set s: a fixed-size array is a plain attribute'),
    ('value V\n   a : U32[0]', 'bad.gant:3: a: an array of no elements'),
    ('value V\n   map m : U32 -> U32 [keyof]', 'bad.gant:3: keyof only in an entity'),
    ('value V\n   map m : U32 -> U32 [handset]', "bad.gant:3: handset only on an entity's attribute m"),
    ('entity E\n   map m : U32 -> U32 [reserve=8]', 'bad.gant:3: reserve only on a hashed map of an entity'),
    ('entity E\n   map m : U32 -> U32 [hashed, reserve=many]', 'bad.gant:3: reserve=N expects a number, not many'),
    ('entity E\n   children c : Missing', 'bad.gant:3: children of Missing: key type unknown, add [key=Type]'),
    ('entity E [key=id]', 'bad.gant:2: key=NAME : TYPE expected'),
    ('enum E : U32\n   red', 'bad.gant:3: enum member NAME = VALUE expected'),
    ('value V\n     a : U32\n   b : U32', 'bad.gant:4: unexpected indentation'),
    ('value V\n   a U32', 'bad.gant:3: attribute expected: a U32'),
    ('flags F : U32\n   on [hashed]', 'bad.gant:3: no options on this line'),
    ('entity E\n   static s = 1', 'bad.gant:3: static not allowed in an entity'),
    ('value V\n   init f', 'bad.gant:3: init not allowed in a value'),
    ('value V\n   fini f', 'bad.gant:3: fini not allowed in a value'),
    ('scalar S : U16\n   a : U32', 'bad.gant:3: a scalar holds only static lines'),
    ('scalar S : U8\n   bit b = 8', 'bad.gant:3: bit b outside U8'),
    ('value V\n   bit b = 1', 'bad.gant:3: bit not allowed in a value'),
]


class Generator(unittest.TestCase):
    def test_sample_matches_golden(self):
        with tempfile.TemporaryDirectory() as out:
            p, paths = generate(SAMPLE, out)
            self.assertEqual(p.returncode, 0, p.stderr)
            for k, golden in GOLDEN.items():
                with open(paths[k]) as got, open(golden) as want:
                    self.assertEqual(got.read(), want.read(), f'{k} differs from {golden}')

    def test_bad_schemas_are_refused_with_file_and_line(self):
        with tempfile.TemporaryDirectory() as out:
            for body, message in BAD:
                with self.subTest(body=body):
                    with open(os.path.join(out, 'bad.gant'), 'w') as f:
                        f.write('namespace N\n' + body + '\n')
                    p, paths = generate('bad.gant', out, cwd=out)
                    self.assertEqual((p.returncode, p.stderr), (1, f'gantgen: {message}\n'))
                    self.assertFalse(os.path.exists(paths['header']), 'nothing written')


if __name__ == '__main__':
    if sys.argv[1:] == ['--regenerate']:
        with tempfile.TemporaryDirectory() as out:
            p, paths = generate(SAMPLE, out)
            sys.stderr.write(p.stderr)
            for k, golden in GOLDEN.items():
                with open(paths[k]) as got, open(golden, 'w') as want:
                    want.write(got.read())
        sys.exit(p.returncode)
    unittest.main()
