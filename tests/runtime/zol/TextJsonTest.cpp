#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cmath>
#include <limits>
#include <string>

#include "Zol/Binding.h"
#include "Zol/Json.h"
#include "Zol/Text.h"
#include "ZolGen/VemoCommon.h"
#include "ZolGen/VemoCommonJson.h"
#include "ZolGen/VemoTypes.h"
#include "ZolGen/VemoTypesJson.h"

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
  std::string const levels =
      "Value('Vemo::WevlLevels', ** {'vemoVrfRootSm': 1, 'vemoRoutingStatusSm': 1, "
      "'vemoL3FeatureConfigSm': 1, 'vemoArpSm': 2, 'vemoIp6NeighborSm': 2, 'vemoRoutingSm': 3, "
      "'vemoResilientEcmpSm': 3, 'vemoIp6RoutingSm': 4, 'vemoIp6ResilientEcmpSm': 4, "
      "'vemoAdjDependencySm': 5, 'vemoSubIntfSm': 8, 'vemoIntfStatusSm': 6, "
      "'vemoL2AdjHelper': 6, 'vemoPwSm': 6})";
  EXPECT_EQ(Zol::stringValue(Vemo::WevlLevels()), levels);
  EXPECT_EQ(Zol::valueFromString<Vemo::WevlLevels>(levels), Vemo::WevlLevels());

  // Fields in any order, absent ones at their defaults, any spacing.
  auto const partial = Zol::valueFromString<Vemo::WevlLevels>(
      " Value( 'Vemo::WevlLevels',**{ 'vemoPwSm':9,\n'vemoArpSm' : 7 } ) ");
  Vemo::WevlLevels expected;
  expected.vemoPwSmIs(9);
  expected.vemoArpSmIs(7);
  EXPECT_EQ(partial, expected);

  Vemo::AsyncOperationResult const r("it's a \\ path", -0.0);
  std::string const text = Zol::stringValue(r);
  EXPECT_EQ(text,
            "Value('Vemo::AsyncOperationResult', ** {'error': 'it\\'s a \\\\ path', "
            "'timestamp': -0})");
  auto const back = Zol::valueFromString<Vemo::AsyncOperationResult>(text);
  EXPECT_EQ(back.error(), r.error());
  EXPECT_TRUE(std::signbit(back.timestamp()));
  for (double d : {std::numeric_limits<double>::quiet_NaN(),
                   -std::numeric_limits<double>::infinity(), 1e-300, 0.1}) {
    double const parsed = Zol::valueFromString<double>(Zol::stringValue(d));
    EXPECT_TRUE(Zol::sameValue(parsed, d)) << Zol::stringValue(d);
  }

  EXPECT_EQ(Zol::stringValue(Vemo::HwOperationalMode::modeTapAgg), "'modeTapAgg'");
  EXPECT_EQ(Zol::valueFromString<Vemo::HwOperationalMode>("\"modeTapAgg\""),
            Vemo::HwOperationalMode::modeTapAgg);
}

TEST(Text, MalformedTextThrowsNamingTheText) {
  for (char const* text : {
           "",
           "Value('Vemo::WevlLevels', ** {'vemoPwSm': 9}",
           "Value('Vemo::WevlLevel', ** {})",
           "Value('Vemo::WevlLevels', ** {'vemoPw': 9})",
           "Value('Vemo::WevlLevels', ** {'vemoPwSm': nine})",
           "Value('Vemo::WevlLevels', ** {'vemoPwSm': 9,})",
           "Value('Vemo::WevlLevels', ** {'vemoPwSm: 9})",
           "Value('Vemo::WevlLevels', {})",
           "Value('Vemo::WevlLevels', ** {}) trailing",
       }) {
    EXPECT_THAT([&] { Zol::valueFromString<Vemo::WevlLevels>(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")))
        << text;
  }
  // The error of one field names the whole text and what was wrong in it.
  EXPECT_THAT(
      [] {
        Zol::valueFromString<Vemo::WevlLevels>("Value('Vemo::WevlLevels', ** {'vemoPwSm': 1e3})");
      },
      ThrowsMessage<Zol::ParseError>(testing::StrEq("cannot parse 'Value('Vemo::WevlLevels', ** "
                                                    "{'vemoPwSm': 1e3})': '1e3' is not a number")));
  EXPECT_THAT([] { Zol::valueFromString<Vemo::HwOperationalMode>("'modeFast'"); },
              ThrowsMessage<Zol::ParseError>(
                  HasSubstr("'modeFast' is not a value of Vemo::HwOperationalMode")));
  EXPECT_THROW(Zol::valueFromString<Zol::U8>("256"), Zol::RangeException);
  EXPECT_THROW(Zol::valueFromString<Zol::U8>("-1"), Zol::ParseError);
  EXPECT_THROW(Zol::valueFromString<bool>("true"), Zol::ParseError);
}

TEST(Text, RangeErrorsCarryTheirTexts) {
  EXPECT_EQ(VemoTypes::BitmapIndex(31).value(), 31u);
  EXPECT_THAT([] { VemoTypes::BitmapIndex(32); },
              ThrowsMessage<Zol::RangeException>(
                  testing::StrEq("BitmapIndex::value < 0 or > BitmapIndex::max not allowed")));
  EXPECT_THAT(
      [] {
        Zol::valueFromString<VemoTypes::Bitmap>(
            "Value('VemoTypes::Bitmap', ** {'unitBmpQuantity': 33})");
      },
      ThrowsMessage<Zol::RangeException>(
          testing::StrEq("Bitmap::unitBmpQuantity < 0 or > Expr @VemoBitmapTypes:47 not allowed")));
  JsonDoc j("32");
  EXPECT_THAT([&] { Zol::fromJson<VemoTypes::BitmapIndex>(*j); },
              ThrowsMessage<Zol::RangeException>(
                  testing::StrEq("BitmapIndex::value < 0 or > BitmapIndex::max not allowed")));
}

TEST(Json, ValuesConvertBackAndWrongTypesAreRejected) {
  rapidjson::Document d;
  Vemo::WevlLevels levels;
  levels.vemoArpSmIs(11);
  Json const j = Zol::toJson(levels, d.GetAllocator());
  EXPECT_EQ(j["vemoArpSm"].GetUint(), 11u);
  EXPECT_EQ(Zol::fromJson<Vemo::WevlLevels>(j), levels);

  EXPECT_THAT([] { Zol::fromJson<Zol::U32>(*JsonDoc("\"5\"")); },
              ThrowsMessage<Zol::BindError>(testing::StrEq("expected an integer, found \"5\"")));
  EXPECT_THROW(Zol::fromJson<Zol::U32>(*JsonDoc("1.5")), Zol::BindError);
  EXPECT_THROW(Zol::fromJson<bool>(*JsonDoc("1")), Zol::BindError);
  EXPECT_THROW(Zol::fromJson<Zol::U8>(*JsonDoc("256")), Zol::RangeException);
  EXPECT_THROW(Zol::fromJson<Zol::U32>(*JsonDoc("-1")), Zol::RangeException);
  EXPECT_THROW(Zol::fromJson<Zol::S8>(*JsonDoc("-129")), Zol::RangeException);
  EXPECT_EQ(Zol::fromJson<Zol::S8>(*JsonDoc("-128")), -128);
  EXPECT_THAT([] { Zol::fromJson<Vemo::VerifyMismatch>(*JsonDoc(R"({"sm": "x", "bogus": 1})")); },
              ThrowsMessage<Zol::BindError>(HasSubstr("has no field 'bogus'")));
}

namespace {

class VerifyLog : public Vemo::VerifyData::NotifieeConst {
 public:
  explicit VerifyLog(Zol::Ptr<Vemo::VerifyData const> const& n) { notifierIs(n); }
  void onVerify(Zol::String const& k) override { keys.push_back(k); }
  std::vector<std::string> keys;
};

}  // namespace

TEST(Binding, ReadsAndWritesAttributesByNameAndListsEntriesInKeyOrder) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto e = Zol::make<Vemo::VerifyData>("v");
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
            R"("zeta":4},"reverify":{},"completed":{},"mismatch":{"2":{"request":"","sm":"arp",)"
            R"("text":""},"10":{"request":"","sm":"","text":"late"}},"nextMismatch":7,)"
            R"("currentRequest":"","answerPending":{}})");
}
