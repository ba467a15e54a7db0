#!/usr/bin/env python3
"""Embeds a text file as a C++ string constant: embed.py INPUT OUTPUT HEADER SYMBOL."""
import sys
from pathlib import Path

src, out, header, symbol = sys.argv[1:5]
text = Path(src).read_text()
body = (f"// Generated from {Path(src).name}. Do not edit.\n#include \"{header}\"\n\n"
        f"char const* const {symbol} = R\"EMBED({text})EMBED\";\n")
p = Path(out)
if not p.exists() or p.read_text() != body:
    p.write_text(body)
