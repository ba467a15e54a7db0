"""Helpers shared by the generator tests: schema files in a scratch folder."""

import tempfile
import textwrap
import unittest
from pathlib import Path

import zolgen
from model import SchemaError

HERE = Path(__file__).resolve().parent
GOLDEN = HERE / "golden"


class SchemaTestCase(unittest.TestCase):
    """Writes TOML families to a scratch folder that goes away after each test."""

    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="zolgen-test-")
        self.dir = Path(self._tmp.name)
        self.addCleanup(self._tmp.cleanup)

    def write(self, name, text):
        path = self.dir / name
        path.write_text(textwrap.dedent(text))
        return path

    def generate(self, **files):
        """Writes each keyword as NAME.toml and generates from all of them."""
        paths = [self.write(f"{name}.toml", text) for name, text in files.items()]
        return zolgen.generate(paths)

    def assertSchemaError(self, *fragments, **files):
        """Generating from the files must fail with a SchemaError naming every fragment."""
        with self.assertRaises(SchemaError) as cm:
            self.generate(**files)
        message = str(cm.exception)
        for fragment in fragments:
            self.assertIn(fragment, message)
        return message
