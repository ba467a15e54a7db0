"""Schemas the generator must refuse: each fails with a SchemaError that names the file and the
offending declaration, instead of emitting C++ that fails to compile or misbehaves."""

import unittest

from tests.support import SchemaTestCase

HEAD = 'namespace = "N"\n'


def attrs(prefix, count, extra=""):
    return ", ".join(f'{{ name = "{prefix}{i}", type = "U8"{extra} }}' for i in range(count))


def entity(name, attr_list, base=None):
    base_line = f'base = "{base}"\n' if base else ""
    return f'[[entity]]\nname = "{name}"\n{base_line}attrs = [{attr_list}]\n'


def value(field):
    return f'[[value]]\nname = "V"\nfields = [{field}]\n'


RANGE_R = '[[range]]\nname = "R"\nbase = "U8"\nmin = 0\nmax = 3\n'
ENTITY_E = '[[entity]]\nname = "E"\n'
ENTITY_C = '[[entity]]\nname = "C"\n'
ENUM_C = '[[enum]]\nname = "C"\nvalues = ["a"]\n'

# (fragments the message must hold, the A.toml text after HEAD); every message names A.toml.
# Cases marked "fault" are generator faults found earlier: each once generated C++ that did not
# compile, refused every value, or escaped as another exception without the file's name.
REFUSED = {
    "type declared twice in one file": (("N::R",), RANGE_R + '[[entity]]\nname = "R"\n'),
    "duplicate enumerator": (("duplicate",), '[[enum]]\nname = "C"\nvalues = ["a", "a"]\n'),
    "duplicate field": (("duplicate",), value('{ name = "x", type = "U8" }, '
                                              '{ name = "x", type = "U16" }')),
    "duplicate attribute": (("duplicate",), entity("E", '{ name = "x", type = "U8" }, '
                                                        '{ name = "x", type = "U8" }')),
    "attribute named like the entity name": (
        ("clashes with the entity's own name",),
        entity("E", '{ name = "name", type = "Name", is_key = true }')),
    "keyword namespace": (("'class'", "keyword"), None),
    "keyword enum": (("'union'", "keyword"), '[[enum]]\nname = "union"\nvalues = ["a"]\n'),
    "keyword enumerator": (("'default'", "keyword"),
                           '[[enum]]\nname = "C"\nvalues = ["a", "default"]\n'),
    "keyword range": (("'int'", "keyword"),
                      '[[range]]\nname = "int"\nbase = "U8"\nmin = 0\nmax = 1\n'),
    "keyword value": (("'struct'", "keyword"), '[[value]]\nname = "struct"\n'),
    "keyword field": (("'new'", "keyword"), value('{ name = "new", type = "U8" }')),
    "keyword entity": (("'template'", "keyword"), '[[entity]]\nname = "template"\n'),
    "keyword attribute": (("'delete'", "keyword"), entity("E", '{ name = "delete", type = "U8" }')),
    **{f"name {bad!r}": ((f"'{bad}'", "not a valid name"), f'[[value]]\nname = "{bad}"\n')
       for bad in ("2fast", "has-dash", "a b", "")},
    **{f"unknown {what}": (("'Nope'", "unknown type"), text) for what, text in {
        "field type": value('{ name = "f", type = "Nope" }'),
        "field key": value('{ name = "f", type = "U8", key = "Nope" }'),
        "field index": value('{ name = "f", type = "U8", array = 4, index = "Nope" }'),
        "attribute type": entity("E", '{ name = "f", type = "Nope" }'),
        "attribute key": entity("E", '{ name = "f", type = "U8", key = "Nope" }'),
        "child": entity("E", '{ name = "f", child = "Nope" }'),
        "reference": entity("E", '{ name = "f", ref = "Nope" }'),
        "base": entity("E", "", base="Nope"),
    }.items()},
    "child that is a value": (("not an entity",), '[[value]]\nname = "V"\n' +
                              entity("E", '{ name = "c", child = "V" }')),
    "scalar that is an entity": (("use 'child' or 'ref'",),
                                 ENTITY_E + entity("F", '{ name = "c", type = "E" }')),
    "value field that is an entity": (("cannot hold an entity",),
                                      ENTITY_E + value('{ name = "f", type = "E" }')),
    "index that is not a range": (("index must be a range",),
                                  value('{ name = "f", type = "U8", array = 4, index = "U8" }')),
    "base that is a value": (("not an entity",), '[[value]]\nname = "V"\n' + entity("E", "", "V")),
    "misspelt family setting": (("A.toml", "unknown setting 'colour'"), "colour = 1\n"),
    "misspelt extern setting": (("extern", "unknown setting 'headr'"),
                                '[[extern]]\nname = "X"\nheader = "x.h"\nheadr = "y"\n'),
    "misspelt enum setting": (("enum C", "unknown setting 'value'"), ENUM_C + 'value = "a"\n'),
    "misspelt range setting": (("range R", "unknown setting 'maximum'"), RANGE_R + "maximum = 4\n"),
    "misspelt value setting": (("value V", "unknown setting 'field'"),
                               '[[value]]\nname = "V"\nfield = []\n'),
    "misspelt field setting": (("Limits field low", "unknown setting 'mn'"),
                               '[[value]]\nname = "Limits"\n'
                               'fields = [{ name = "low", type = "U8", mn = 1 }]\n'),
    "misspelt entity setting": (("entity E", "unknown setting 'attributes'"),
                                ENTITY_E + "attributes = []\n"),
    "misspelt attribute setting": (("entity E attr a", "unknown setting 'keyed'"),
                                   entity("E", '{ name = "a", type = "U8", keyed = "U8" }')),
    "TOML syntax error": ((), "[[enum]\n"),
    "range min above max": (("range R", "min is above max"),
                            '[[range]]\nname = "R"\nbase = "U8"\nmin = 5\nmax = 4\n'),
    "fault: ranged field min above max": (("V", "f", "min"),
                                          value('{ name = "f", type = "U8", min = 5, max = 4 }')),
    "fault: ranged attribute min above max": (
        ("E", "a", "min"), entity("E", '{ name = "a", type = "U8", min = 5, max = 4 }')),
    "min on a text field": (("integer",), value('{ name = "f", type = "String", min = 1 }')),
    "max on a bool attribute": (("integer",),
                                entity("E", '{ name = "a", type = "bool", max = 1 }')),
    "range of doubles": (("integer",),
                         '[[range]]\nname = "R"\nbase = "double"\nmin = 0\nmax = 1\n'),
    "names on text": (("V.x", "single integer"),
                      value('{ name = "x", type = "String", names = { a = 1 } }')),
    "name outside the bounds": (("V.x", "outside 0..3"),
                                value('{ name = "x", type = "U8", max = 3, names = { a = 4 } }')),
    "more bits than the type": (("V.x", "do not fit"), value(
        '{ name = "x", type = "U8", bits = ["a","b","c","d","e","f","g","h","i"] }')),
    "duplicate bit": (("V.x", "distinct"), value('{ name = "x", type = "U8", bits = ["a", "a"] }')),
    "entity as collection key": (
        ("F.byE", "cannot be a key"),
        ENTITY_E + entity("F", '{ name = "byE", key = "E", type = "U8" }')),
    "entity as child collection key": (
        ("F.kids", "cannot be a key"),
        ENTITY_E + entity("F", '{ name = "kids", key = "E", child = "E" }')),
    "fault: entity as value field key": (
        ("V.f", "key"), ENTITY_E + value('{ name = "f", key = "E", type = "U8" }')),
    "65 attributes": (("E", "more than 64"), entity("E", attrs("a", 65))),
    "inherited attributes count": (
        ("E", "more than 64"),
        entity("Base", attrs("b", 40)) + entity("E", attrs("a", 25), "Base")),
    "fault: grandparent declared after the entity": (
        ("C", "more than 64"), entity("C", attrs("c", 30), base="B") +
        entity("B", attrs("b", 30), base="A") + entity("A", attrs("a", 30))),
    **{f"{hook} on a {kind}": (("attr x", "child collection"), ENTITY_C + entity("E", attr % hook))
       for kind, attr in {
           "scalar": '{ name = "x", type = "U8", %s = "f" }',
           "collection": '{ name = "x", type = "U8", key = "U32", %s = "f" }',
           "child": '{ name = "x", child = "C", %s = "f" }',
           "reference": '{ name = "x", ref = "C", %s = "f" }',
       }.items() for hook in ("on_create", "on_delete")},
    "unknown entity hook": (("entity E", "'rebooted'"), ENTITY_E + 'hooks = ["rebooted"]\n'),
    **{f"default_fn on a {kind}": (("attr x", "default_fn"), ENTITY_C + entity("E", attr))
       for kind, attr in {
           "scalar": '{ name = "x", type = "U8", default_fn = "f" }',
           "child collection": '{ name = "x", key = "U32", child = "C", default_fn = "f" }',
           "child": '{ name = "x", child = "C", default_fn = "f" }',
       }.items()},
    "default_fn that is not a name": (("'f()'", "not a valid name"), entity(
        "E", '{ name = "x", key = "U32", type = "U8", default_fn = "f()" }')),
    **{f"construct on a {kind}": (("attr x", "single child"), ENTITY_C + entity("E", attr))
       for kind, attr in {
           "scalar": '{ name = "x", type = "U8", construct = true }',
           "child collection": '{ name = "x", key = "U32", child = "C", construct = true }',
           "reference": '{ name = "x", ref = "C", construct = true }',
       }.items()},
    "constructed child with a key": (("E.x", "only its name"), ENTITY_C.rstrip("\n") +
                                     '\nattrs = [{ name = "k", type = "U8", is_key = true }]\n' +
                                     entity("E", '{ name = "x", child = "C", construct = true }')),
    "constructed child with parameters": (
        ("E.x", "only its name"), ENTITY_C + 'ctor_params = ["Zol::U8 size"]\n' +
        entity("E", '{ name = "x", child = "C", construct = true }')),
    "construction that loops": (("loop",),
                                entity("A", '{ name = "b", child = "B", construct = true }') +
                                entity("B", '{ name = "a", child = "A", construct = true }')),
    "construct that is not a boolean": (("attr x", "true or false"), ENTITY_E + entity(
        "F", '{ name = "x", child = "E", construct = "yes" }')),
    "fault: base cycle": (("cycle",), entity("A", "", base="B") + entity("B", "", base="A")),
    "fault: missing range min": ((), '[[range]]\nname = "R"\nbase = "U8"\nmax = 3\n'),
    "fault: missing extern header": ((), '[[extern]]\nname = "X"\n'),
    "fault: range default outside the range": (
        ("default",), '[[range]]\nname = "R"\nbase = "U8"\nmin = 1\nmax = 3\ndefault = 9\n'),
    "fault: field default outside the range": (
        ("default",), value('{ name = "f", type = "U8", min = 1, max = 3, default = 9 }')),
    "fault: enum default that is not an enumerator": (
        ("'zz'",), ENUM_C + value('{ name = "f", type = "C", default = "zz" }')),
}


class RefusedSchemaTest(SchemaTestCase):
    def test_each_refused_schema_names_its_file_and_fault(self):
        for what, (fragments, text) in REFUSED.items():
            with self.subTest(what):
                text = 'namespace = "N::class"\n' if text is None else HEAD + text
                self.assertSchemaError("A.toml", *fragments, A=text)

    def test_across_families(self):
        colour = '[[enum]]\nname = "Colour"\nvalues = ["red"]\n'
        twice = HEAD + value('{ name = "x", type = "U8" }').replace('"V"', '"Colour"')
        self.assertSchemaError("B.toml", "N::Colour", "declared twice", A=HEAD + colour, B=twice)
        self.assertSchemaError("A.toml", "namespace", A=ENUM_C)
        other = 'namespace = "M"\n' + RANGE_R
        use = HEAD + value('{ name = "f", type = "R" }')
        self.assertSchemaError("A.toml", "'R'", "unknown type", A=use, B=other)
        base = 'namespace = "M"\n' + entity("Base", attrs("b", 40))
        self.assertSchemaError("A.toml", "E", "more than 64",
                               A=HEAD + entity("E", attrs("a", 25), base="M::Base"), B=base)

    def test_allowed_across_families(self):
        files = self.generate(A=HEAD + '[[enum]]\nname = "Colour"\nvalues = ["red"]\n',
                              B='namespace = "M"\n[[enum]]\nname = "Colour"\nvalues = ["blue"]\n')
        self.assertIn("enum class Colour", files["include/ZolGen/B.h"])
        ext = '[[extern]]\nname = "Nepo::IntfId"\nheader = "Nepo/IntfId.h"\n'
        self.assertEqual(len(self.generate(A=HEAD + ext, B='namespace = "M"\n' + ext)), 8)
        files = self.generate(A=HEAD + value('{ name = "f", type = "M::R" }'),
                              B='namespace = "M"\n' + RANGE_R)
        self.assertIn('#include "ZolGen/B.h"', files["include/ZolGen/A.h"])


class AcceptedSchemaTest(SchemaTestCase):
    def header(self, text, name="include/ZolGen/A.h"):
        return self.generate(A=HEAD + text)[name]

    def test_limits(self):
        self.assertIn("static constexpr Base max = 4;",
                      self.header('[[range]]\nname = "R"\nbase = "U8"\nmin = 4\nmax = 4\n'))
        header = self.header(entity("E", attrs("a", 64)))
        self.assertIn("kAttrCount = 64;", header)
        self.assertIn("zolMaskIs(~uint64_t{0})", header)
        header = self.header(entity("E", attrs("a", 2), "Base") + entity("Base", attrs("b", 3)))
        self.assertIn("    kA0 = 3,\n    kA1 = 4,\n", header)
        self.assertIn("kAttrCount = 5;", header)

    def test_hooks_default_functions_and_construction(self):
        source = self.header(ENTITY_C + entity("E", '{ name = "x", child = "C", key = "U32", '
                                                    'on_create = "made", on_delete = "gone" }'),
                             "src/A.cpp")
        self.assertIn("  made(*c);\n", source)
        self.assertIn("if (x_.map.contains(k)) gone(k);", source)
        header = self.header(value('{ name = "f", type = "U8" }') + entity(
            "E", '{ name = "x", key = "U32", type = "V", default_fn = "xFor" }'))
        self.assertIn("  N::V x(Zol::U32 k) const {\n", header)
        self.assertIn("return it == x_.map.end() ? xFor(k) : it->second;", header)
        self.assertIn("  static N::V xFor(Zol::U32 k);\n", header)
        source = self.header(ENTITY_E + entity(
            "F", '{ name = "inner", child = "E", construct = true }'), "src/A.cpp")
        self.assertIn('  inner_.value = Zol::make<N::E>("inner");\n', source)

    def test_range_methods_are_public_members_of_the_range_class(self):
        header = self.header(RANGE_R + 'methods = ["// The top value is reserved.", '
                             '"static constexpr Base reserved = 3", '
                             '"bool isReserved() const { return value_ == reserved; }"]\n')
        body = header[header.index("class R {"):header.index("};", header.index("class R {"))]
        public, private = body.split(" private:")
        self.assertIn("  // The top value is reserved.\n", public)
        self.assertIn("  static constexpr Base reserved = 3;\n", public)
        self.assertIn("  bool isReserved() const { return value_ == reserved; }\n", public)
        self.assertNotIn("reserved", private)


if __name__ == "__main__":
    unittest.main()
