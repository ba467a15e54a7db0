"""Tests of the schema generator. Puts the generator's folder on the import path, so that the
tests import it whichever folder unittest was started from."""

import sys
from pathlib import Path

_ZOLGEN = str(Path(__file__).resolve().parent.parent)
if _ZOLGEN not in sys.path:
    sys.path.insert(0, _ZOLGEN)
