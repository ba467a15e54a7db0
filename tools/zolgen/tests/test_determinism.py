"""The generator's output depends only on the schema, and the command line leaves unchanged
files alone so that a rebuild after an unrelated schema edit does not recompile everything."""

import io
import os
import subprocess
import sys
from contextlib import redirect_stderr
from pathlib import Path

import zolgen
from tests.support import GOLDEN, SchemaTestCase

SCHEMAS = sorted(GOLDEN.glob("*.toml"))
ZOLGEN = Path(zolgen.__file__).resolve()
OLD = 1_000_000_000  # an mtime long past, in seconds


def tree(root):
    return {p.relative_to(root).as_posix(): p.read_bytes()
            for p in Path(root).rglob("*") if p.is_file()}


def mtimes(root):
    return {p.relative_to(root).as_posix(): p.stat().st_mtime_ns
            for p in Path(root).rglob("*") if p.is_file()}


class DeterminismTest(SchemaTestCase):
    def test_generating_twice_gives_identical_text(self):
        self.assertEqual(zolgen.generate(SCHEMAS), zolgen.generate(SCHEMAS))

    def test_order_of_schema_arguments_does_not_matter(self):
        self.assertEqual(zolgen.generate(SCHEMAS), zolgen.generate(list(reversed(SCHEMAS))))

    def test_output_does_not_depend_on_hash_seed(self):
        # Set iteration order changes with the seed; separate processes expose any reliance on it.
        outs = []
        for seed in ("1", "2"):
            out = self.dir / f"seed{seed}"
            env = dict(os.environ, PYTHONHASHSEED=seed)
            subprocess.run([sys.executable, str(ZOLGEN), "--out", str(out), *map(str, SCHEMAS)],
                           check=True, env=env)
            outs.append(tree(out))
        self.assertTrue(outs[0])
        self.assertEqual(outs[0], outs[1])


class WriteIfChangedTest(SchemaTestCase):
    def run_main(self, *schemas):
        self.assertEqual(zolgen.main(["--out", str(self.out), *map(str, schemas)]), 0)

    def age_outputs(self):
        for p in self.out.rglob("*"):
            if p.is_file():
                os.utime(p, ns=(OLD * 10**9, OLD * 10**9))

    def setUp(self):
        super().setUp()
        self.out = self.dir / "out"
        self.schemas = []
        for s in SCHEMAS:
            self.schemas.append(self.write(s.name, s.read_text()))

    def test_main_writes_what_generate_returns(self):
        self.run_main(*self.schemas)
        expected = {rel: text.encode() for rel, text in zolgen.generate(self.schemas).items()}
        self.assertEqual(tree(self.out), expected)

    def test_second_run_leaves_every_file_untouched(self):
        self.run_main(*self.schemas)
        self.age_outputs()
        before = mtimes(self.out)
        self.run_main(*self.schemas)
        self.assertEqual(mtimes(self.out), before)

    def test_edit_rewrites_only_the_edited_family(self):
        self.run_main(*self.schemas)
        self.age_outputs()
        golden = self.dir / "Golden.toml"
        golden.write_text(golden.read_text().replace('doc = "A colour."', 'doc = "A hue."'))
        self.run_main(*self.schemas)
        changed = sorted(rel for rel, t in mtimes(self.out).items() if t != OLD * 10**9)
        self.assertEqual(changed, ["include/ZolGen/Golden.h"])
        self.assertIn("// A hue.", (self.out / "include/ZolGen/Golden.h").read_text())

    def test_changed_file_is_rewritten_and_no_temporary_is_left(self):
        self.run_main(*self.schemas)
        edited = self.out / "src/GoldenNet.cpp"
        edited.write_text("// edited by hand\n")
        self.run_main(*self.schemas)
        self.assertEqual(edited.read_text(), zolgen.generate(self.schemas)["src/GoldenNet.cpp"])
        self.assertEqual([p for p in self.out.rglob("*.tmp")], [])

    def test_schema_error_fails_without_writing(self):
        bad = self.write("Bad.toml", 'namespace = "N"\n[[enum]]\nname = "class"\nvalues = ["a"]\n')
        err = io.StringIO()
        with redirect_stderr(err):
            rc = zolgen.main(["--out", str(self.out), *map(str, self.schemas), str(bad)])
        self.assertEqual(rc, 1)
        self.assertIn("Bad.toml", err.getvalue())
        self.assertFalse(self.out.exists())
