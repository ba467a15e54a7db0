#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cmath>
#include <limits>
#include <string>

#include "Zol/Binding.h"
#include "Zol/Json.h"
#include "Zol/Text.h"
#include "ZolGen/ZolTest.h"
#include "ZolGen/ZolTestJson.h"

using testing::HasSubstr;
using testing::ThrowsMessage;
using Zol::Json;

namespace {

// Parses JSON text into a document that lives as long as the returned value is used.
class JsonDoc {
 public:
  explicit JsonDoc(char const* text) {
    doc_.Parse(text);
    EXPECT_FALSE(doc_.HasParseError()) << text;
  }
  Json const& operator*() const { return doc_; }

 private:
  rapidjson::Document doc_;
};

}  // namespace

TEST(Text, ValueTypesPrintAndParseBack) {
  std::string const levels = "Value('ZolTest::Levels', ** {'arpSm': 2, 'routingSm': 3, 'pwSm': 6})";
  EXPECT_EQ(Zol::stringValue(ZolTest::Levels()), levels);

  // Fields in any order, absent ones at their defaults, any spacing.
  auto const partial = Zol::valueFromString<ZolTest::Levels>(
      " Value( 'ZolTest::Levels',**{ 'pwSm':9,\n'arpSm' : 7 } ) ");
  ZolTest::Levels expected;
  expected.pwSmIs(9);
  expected.arpSmIs(7);
  EXPECT_EQ(partial, expected);

  ZolTest::Result const r("it's a \\ path", -0.0);
  std::string const text = Zol::stringValue(r);
  EXPECT_EQ(text,
            "Value('ZolTest::Result', ** {'error': 'it\\'s a \\\\ path', "
            "'timestamp': -0})");
  auto const back = Zol::valueFromString<ZolTest::Result>(text);
  EXPECT_EQ(back.error(), r.error());
  EXPECT_TRUE(std::signbit(back.timestamp()));
  for (double d : {std::numeric_limits<double>::quiet_NaN(),
                   -std::numeric_limits<double>::infinity(), 1e-300, 0.1}) {
    double const parsed = Zol::valueFromString<double>(Zol::stringValue(d));
    EXPECT_TRUE(Zol::sameValue(parsed, d)) << Zol::stringValue(d);
  }

  EXPECT_EQ(Zol::stringValue(ZolTest::Mode::tapAgg), "'tapAgg'");
  EXPECT_EQ(Zol::valueFromString<ZolTest::Mode>("\"tapAgg\""), ZolTest::Mode::tapAgg);
}

TEST(Text, MalformedTextThrowsNamingTheText) {
  for (char const* text : {
           "",
           "Value('ZolTest::Levels', ** {'pwSm': 9}",
           "Value('ZolTest::Level', ** {})",
           "Value('ZolTest::Levels', ** {'pw': 9})",
           "Value('ZolTest::Levels', ** {'pwSm': nine})",
           "Value('ZolTest::Levels', ** {'pwSm': 9,})",
           "Value('ZolTest::Levels', ** {'pwSm: 9})",
           "Value('ZolTest::Levels', {})",
           "Value('ZolTest::Levels', ** {}) trailing",
       }) {
    EXPECT_THAT([&] { Zol::valueFromString<ZolTest::Levels>(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")))
        << text;
  }
  // The error of one field names the whole text and what was wrong in it.
  EXPECT_THAT(
      [] { Zol::valueFromString<ZolTest::Levels>("Value('ZolTest::Levels', ** {'pwSm': 1e3})"); },
      ThrowsMessage<Zol::ParseError>(testing::StrEq("cannot parse 'Value('ZolTest::Levels', ** "
                                                    "{'pwSm': 1e3})': '1e3' is not a number")));
  EXPECT_THAT([] { Zol::valueFromString<ZolTest::Mode>("'fast'"); },
              ThrowsMessage<Zol::ParseError>(HasSubstr("'fast' is not a value of ZolTest::Mode")));
  EXPECT_THROW(Zol::valueFromString<Zol::U8>("256"), Zol::RangeException);
  EXPECT_THROW(Zol::valueFromString<Zol::U8>("-1"), Zol::ParseError);
  EXPECT_THROW(Zol::valueFromString<bool>("true"), Zol::ParseError);
}

TEST(Text, RangeErrorsCarryTheirTexts) {
  EXPECT_EQ(ZolTest::Slot(31).value(), 31u);
  EXPECT_THAT([] { ZolTest::Slot(32); }, ThrowsMessage<Zol::RangeException>(testing::StrEq(
                                             "Slot::value < 0 or > Slot::max not allowed")));
  EXPECT_THAT(
      [] { Zol::valueFromString<ZolTest::Slots>("Value('ZolTest::Slots', ** {'used': 33})"); },
      ThrowsMessage<Zol::RangeException>(testing::StrEq("Slots::used < 0 or > 32 not allowed")));
  JsonDoc j("32");
  EXPECT_THAT([&] { Zol::fromJson<ZolTest::Slot>(*j); },
              ThrowsMessage<Zol::RangeException>(
                  testing::StrEq("Slot::value < 0 or > Slot::max not allowed")));
}

TEST(Json, ValuesConvertBackAndWrongTypesAreRejected) {
  rapidjson::Document d;
  ZolTest::Levels levels;
  levels.arpSmIs(11);
  Json const j = Zol::toJson(levels, d.GetAllocator());
  EXPECT_EQ(j["arpSm"].GetUint(), 11u);
  EXPECT_EQ(Zol::fromJson<ZolTest::Levels>(j), levels);

  EXPECT_THAT([] { Zol::fromJson<Zol::U32>(*JsonDoc("\"5\"")); },
              ThrowsMessage<Zol::BindError>(testing::StrEq("expected an integer, found \"5\"")));
  EXPECT_THROW(Zol::fromJson<Zol::U32>(*JsonDoc("1.5")), Zol::BindError);
  EXPECT_THROW(Zol::fromJson<bool>(*JsonDoc("1")), Zol::BindError);
  EXPECT_THROW(Zol::fromJson<Zol::U8>(*JsonDoc("256")), Zol::RangeException);
  EXPECT_THROW(Zol::fromJson<Zol::U32>(*JsonDoc("-1")), Zol::RangeException);
  EXPECT_THROW(Zol::fromJson<Zol::S8>(*JsonDoc("-129")), Zol::RangeException);
  EXPECT_EQ(Zol::fromJson<Zol::S8>(*JsonDoc("-128")), -128);
  EXPECT_THAT([] { Zol::fromJson<ZolTest::Note>(*JsonDoc(R"({"sm": "x", "bogus": 1})")); },
              ThrowsMessage<Zol::BindError>(HasSubstr("has no field 'bogus'")));
}

namespace {

class VerifyLog : public ZolTest::Board::NotifieeConst {
 public:
  explicit VerifyLog(Zol::Ptr<ZolTest::Board const> const& n) { notifierIs(n); }
  void onVerify(Zol::String const& k) override { keys.push_back(k); }
  std::vector<std::string> keys;
};

}  // namespace

TEST(Binding, ReadsAndWritesAttributesByNameAndListsEntriesInKeyOrder) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto e = Zol::make<ZolTest::Board>("v");
  VerifyLog r(e);
  Zol::EntityType const& type = e->zolEntityType();
  EXPECT_EQ(type.attr("nothing"), nullptr);
  Zol::AttrDesc const* verify = type.attr("verify");
  Zol::AttrDesc const* next = type.attr("nextMismatch");
  Zol::AttrDesc const* mismatch = type.attr("mismatch");
  ASSERT_TRUE(verify && next && mismatch);

  rapidjson::Document d;
  auto& a = d.GetAllocator();
  verify->set(*e, &*JsonDoc("\"b\""), *JsonDoc("2"));
  EXPECT_EQ(e->verify("b"), 2u);
  EXPECT_EQ(verify->get(*e, &*JsonDoc("\"b\""), a).GetUint(), 2u);
  EXPECT_TRUE(verify->get(*e, &*JsonDoc("\"absent\""), a).IsNull());
  next->set(*e, nullptr, *JsonDoc("7"));
  EXPECT_EQ(next->get(*e, nullptr, a).GetUint(), 7u);
  mismatch->set(*e, &*JsonDoc("10"), *JsonDoc(R"({"text": "late"})"));
  mismatch->set(*e, &*JsonDoc("\"2\""), *JsonDoc(R"({"sm": "arp"})"));
  EXPECT_EQ(e->mismatch(10).text(), "late");
  verify->del(*e, *JsonDoc("\"b\""));
  EXPECT_FALSE(e->verifyHas("b"));
  loop.runUntilIdle();
  EXPECT_THAT(r.keys, testing::ElementsAre("b"));  // written and deleted before delivery

  // Normalizing is a dry run that fills in the defaults.
  EXPECT_EQ(Zol::jsonText(mismatch->normalize(*JsonDoc(R"({"sm": "x"})"), a)),
            R"({"request":"","sm":"x","text":""})");

  // Wrong types leave the entity as it was.
  EXPECT_THROW(verify->set(*e, &*JsonDoc("\"c\""), *JsonDoc("\"one\"")), Zol::BindError);
  EXPECT_THROW(verify->set(*e, &*JsonDoc("5"), *JsonDoc("1")), Zol::BindError);
  EXPECT_THROW(next->set(*e, nullptr, *JsonDoc("-1")), Zol::RangeException);
  EXPECT_THROW(mismatch->checkKey(*JsonDoc("\"abc\"")), Zol::ParseError);
  EXPECT_THROW(mismatch->set(*e, &*JsonDoc("4"), *JsonDoc(R"({"sm": 4})")), Zol::BindError);
  EXPECT_FALSE(e->verifyHas("c"));
  EXPECT_EQ(e->nextMismatch(), 7u);
  EXPECT_EQ(e->mismatchSize(), 2u);

  for (char const* k : {"zeta", "b9", "alpha", "b10", "mu", "a", "omega", "kappa", "b1"}) {
    e->verifyIs(k, static_cast<Zol::U32>(std::string(k).size()));
  }
  EXPECT_EQ(Zol::jsonText(Zol::entityToJson(*e, a)),
            R"({"verify":{"a":1,"alpha":5,"b1":2,"b10":3,"b9":2,"kappa":5,"mu":2,"omega":5,)"
            R"("zeta":4},"completed":{},"mismatch":{"2":{"request":"","sm":"arp",)"
            R"("text":""},"10":{"request":"","sm":"","text":"late"}},"nextMismatch":7,)"
            R"("currentRequest":""})");
}
