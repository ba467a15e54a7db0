"""The generated C++ of a small schema, compared byte for byte with checked-in copies.

A change to the generator that alters its output fails here with a diff; when the change is
intended, refresh the copies with ZOLGEN_UPDATE_GOLDEN=1 and review the diff in version control.
"""

import difflib
import os
import unittest

import zolgen
from tests.support import GOLDEN

EXPECTED = GOLDEN / "expected"
SCHEMAS = sorted(GOLDEN.glob("*.toml"))
# The copies are not sources: the suffix keeps the formatter and the compiler off them.
SUFFIX = ".golden"


def _copy(rel):
    return EXPECTED / (rel + SUFFIX)


def _expected_files():
    return {p.relative_to(EXPECTED).as_posix().removesuffix(SUFFIX): p.read_text()
            for p in EXPECTED.rglob("*" + SUFFIX) if p.is_file()}


class GoldenOutputTest(unittest.TestCase):
    def setUp(self):
        self.actual = zolgen.generate(SCHEMAS)
        if os.environ.get("ZOLGEN_UPDATE_GOLDEN") == "1":
            for stale in set(_expected_files()) - set(self.actual):
                _copy(stale).unlink()
            for rel, text in self.actual.items():
                zolgen.write_if_changed(_copy(rel), text)

    def test_golden_schema_covers_every_declaration_kind(self):
        # Guards the goldens themselves: dropping a case from the schema would silently shrink
        # what they check.
        text = "".join(p.read_text() for p in SCHEMAS)
        for needle in ("[[enum]]", "[[range]]", "[[value]]", "[[entity]]", "[[extern]]",
                       "count_field", "key =", "child =", "ref =", "base =", "min =",
                       "on_create", "on_delete", "is_key", "hooks", "ordered", "default_fn",
                       "construct = true", "check =", "input = true", "names =", "bits =",
                       "hex = true", "what ="):
            self.assertIn(needle, text)

    def test_generates_exactly_the_expected_files(self):
        self.assertEqual(sorted(self.actual), sorted(_expected_files()))

    def test_output_matches_golden_byte_for_byte(self):
        expected = _expected_files()
        for rel, text in sorted(self.actual.items()):
            with self.subTest(file=rel):
                want = expected.get(rel)
                if want is None:
                    self.fail(f"{rel}: no golden copy (run with ZOLGEN_UPDATE_GOLDEN=1)")
                if text != want:
                    diff = "".join(difflib.unified_diff(
                        want.splitlines(keepends=True), text.splitlines(keepends=True),
                        fromfile=f"expected/{rel}", tofile=f"generated/{rel}"))
                    self.fail(f"{rel} differs from its golden copy (refresh with "
                              f"ZOLGEN_UPDATE_GOLDEN=1 if intended):\n{diff}")


if __name__ == "__main__":
    unittest.main()
