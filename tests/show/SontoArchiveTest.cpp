// The archive's text form: numbers that come back bit for bit, strings through
// every escape, and a parser that refuses broken or hostile text with a reason.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "show/SontoArchive.h"

namespace {

uint64_t bitsOf(double d) {
  uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

double roundTrip(double d) {
  QJsonObject o;
  o.insert("x", d);
  std::string error;
  const auto back = SontoArchive::decodeObject(SontoArchive::encode(o), &error);
  EXPECT_TRUE(back) << error;
  return back ? back->value("x").toDouble() : std::nan("");
}

}  // namespace

TEST(SontoArchive, NumbersReadBackBitForBit) {
  const double cases[] = {0.0, 1.0, -1.0, 0.1, 1.0 / 3.0, static_cast<double>(0.15f),
                          static_cast<double>(0.1f), static_cast<double>(FLT_MAX), static_cast<double>(FLT_MIN),
                          static_cast<double>(std::numeric_limits<float>::denorm_min()), DBL_MAX, DBL_MIN,
                          std::numeric_limits<double>::denorm_min(), 9007199254740993.0, 1152921504606846976.0,
                          -1e21, 1e22, 123456.789e-300, 5e-324, M_PI, 4.35, 2.675};
  for (const double d : cases) {
    EXPECT_EQ(bitsOf(roundTrip(d)), bitsOf(d)) << d;
  }
  // A float stored widened narrows back to the same float.
  for (float f : {0.15f, 0.8f, 1e-40f, 3.4028235e38f, -1e-45f}) {
    const float back = static_cast<float>(roundTrip(static_cast<double>(f)));
    EXPECT_EQ(std::memcmp(&back, &f, sizeof f), 0) << f;
  }
}

// Qt's containers keep a whole double as an integer, so the sign of a zero is the
// one bit that does not survive; the value does.
TEST(SontoArchive, NegativeZeroReadsBackAsZero) { EXPECT_EQ(roundTrip(-0.0), 0.0); }

TEST(SontoArchive, NonFiniteNumbersAreWrittenAsNull) {
  QJsonArray a{std::numeric_limits<double>::infinity(), std::nan(""), 1.5};
  EXPECT_EQ(SontoArchive::encode(a), QByteArray("[null,null,1.5]"));
}

TEST(SontoArchive, StringsSurviveEveryEscape) {
  const QString text = QString::fromUtf8("quote \" backslash \\ slash / tab \t nl \n cr \r bell \x07 nul-free "
                                         "é 漢字 🎵 \x7f end");
  QJsonObject o{{"s", text}, {text, true}};
  const QByteArray encoded = SontoArchive::encode(o);
  const auto back = SontoArchive::decodeObject(encoded);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->value("s").toString(), text);
  EXPECT_TRUE(back->value(text).toBool());
  // Escaped surrogate pairs, as other writers produce them.
  const auto escaped = SontoArchive::decodeObject(R"({"s":"\ud83c\udfb5\u00e9\u0041"})");
  ASSERT_TRUE(escaped);
  EXPECT_EQ(escaped->value("s").toString(), QString::fromUtf8("🎵éA"));
}

TEST(SontoArchive, OrderedRootKeepsItsKeyOrder) {
  const QByteArray data = SontoArchive::encodeOrdered({{"version", "1"}, {"carts", QJsonArray{}}, {"a", 1}});
  EXPECT_EQ(data, QByteArray(R"({"version":"1","carts":[],"a":1})"));
}

TEST(SontoArchive, BrokenAndHostileTextIsRefusedWithAReason) {
  struct Case {
    const char* name;
    QByteArray text;
  };
  const Case cases[] = {
      {"empty", ""},
      {"unterminated object", R"({"a":1)"},
      {"unterminated string", R"({"a":"abc)"},
      {"trailing garbage", R"({"a":1} x)"},
      {"two documents", R"({}{})"},
      {"bare word", R"({"a":tru})"},
      {"leading zero", R"({"a":01})"},
      {"dot without digits", R"({"a":1.})"},
      {"lone minus", R"({"a":-})"},
      {"plus sign", R"({"a":+1})"},
      {"hex", R"({"a":0x10})"},
      {"overflowing exponent", R"({"a":1e999})"},
      {"single quotes", R"({'a':1})"},
      {"trailing comma", R"({"a":1,})"},
      {"missing colon", R"({"a" 1})"},
      {"raw control character", QByteArray("{\"a\":\"x\x01y\"}")},
      {"bad escape", R"({"a":"\q"})"},
      {"short unicode escape", R"({"a":"\u12"})"},
      {"truncated UTF-8", QByteArray("{\"a\":\"\xe6\xbc")},
      {"embedded nul", QByteArray("{\"a\":1}\0", 8)},
      {"deep nesting", QByteArray(100000, '[')},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(SontoArchive::decode(c.text, &error)) << c.name;
    EXPECT_FALSE(error.empty()) << c.name;
  }
  std::string error;
  EXPECT_FALSE(SontoArchive::decodeObject("[1,2]", &error));
  EXPECT_EQ(error, "the document is not an object");
}

// A damaged name must not cost the show: bad UTF-8 and lone surrogates come out as
// U+FFFD, each string's place is named, and the good text around them stays.
TEST(SontoArchive, TextThatIsNotUnicodeIsRepairedWhereItStands) {
  const QString r(QChar(0xFFFD));
  struct Case {
    const char* name;
    QByteArray text;
    QString value;
    const char* place;
  };
  const Case cases[] = {
      {"invalid bytes", "{\"a\":[\"x\xff\xfey\"]}", "x" + r + r + "y", "a[0]"},
      {"overlong", "{\"a\":{\"b\":\"\xc0\xaf\"}}", r + r, "a.b"},
      {"UTF-8 surrogate", "{\"a\":\"\xed\xa0\x80!\"}", r + r + r + "!", "a"},
      {"cut sequence", "{\"a\":\"\xe6\xbc\"}", r + r, "a"},
      {"lone high surrogate", R"({"a":"\ud800"})", r, "a"},
      {"high then a letter", R"({"a":"\ud800\u0041"})", r + "A", "a"},
      {"lone low surrogate", R"({"a":"\udc00x"})", r + "x", "a"},
      {"a pair stays a pair", R"({"a":"\ud83c\udfb5"})", QString::fromUtf8("🎵"), nullptr},
  };
  for (const auto& c : cases) {
    std::vector<std::string> repaired;
    std::string error;
    const auto o = SontoArchive::decodeObject(c.text, &error, {}, &repaired);
    ASSERT_TRUE(o) << c.name << ": " << error;
    QJsonValue v = o->value("a");
    if (v.isArray()) v = v.toArray().at(0);
    if (v.isObject()) v = v.toObject().value("b");
    EXPECT_EQ(v.toString(), c.value) << c.name;
    EXPECT_EQ(repaired, c.place ? std::vector<std::string>{c.place} : std::vector<std::string>{}) << c.name;
  }
  std::vector<std::string> repaired;
  const auto key = SontoArchive::decodeObject("{\"k\xff\":1}", nullptr, {}, &repaired);
  ASSERT_TRUE(key);
  EXPECT_TRUE(key->contains("k" + r));
  EXPECT_EQ(repaired, std::vector<std::string>{"the document (a key)"});
  EXPECT_FALSE(SontoArchive::decode(R"(["\ud800\u12"])")) << "a broken escape after it is still refused";
}

TEST(SontoArchive, LimitsHoldAtTheirEdges) {
  SontoArchive::Limits limits;
  limits.maxDepth = 3;
  EXPECT_TRUE(SontoArchive::decode("[[[1]]]", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode("[[[[1]]]]", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode(R"({"a":{"b":{"c":{}}}})", nullptr, limits));

  limits = {};
  limits.maxStringBytes = 4;
  EXPECT_TRUE(SontoArchive::decode(R"(["abcd"])", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode(R"(["abcde"])", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode(R"(["\u00e9\u00e9\u00e9"])", nullptr, limits)) << "bytes, not characters";

  limits = {};
  limits.maxValues = 4;
  EXPECT_TRUE(SontoArchive::decode("[1,2,3]", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode("[1,2,3,4]", nullptr, limits));

  limits = {};
  limits.maxDocumentBytes = 8;
  std::string error;
  EXPECT_TRUE(SontoArchive::decode("[1,2,34]", nullptr, limits));
  EXPECT_FALSE(SontoArchive::decode("[1,2,345]", &error, limits));
  EXPECT_NE(error.find("too large"), std::string::npos);
}

TEST(SontoArchive, DataSizesColoursAndIndexKeys) {
  const QByteArray bytes("\x90\x3c\x7f\x00\xff", 5);
  EXPECT_EQ(SontoArchive::dataFromValue(SontoArchive::dataObject(bytes)), bytes);
  EXPECT_EQ(SontoArchive::dataFromValue(SontoArchive::dataObject(QByteArray())), QByteArray());
  EXPECT_FALSE(SontoArchive::dataFromValue(QJsonObject{{"$data", "!!!"}}));
  EXPECT_FALSE(SontoArchive::dataFromValue(QJsonObject{{"$data", 12}}));
  EXPECT_FALSE(SontoArchive::dataFromValue(QJsonValue("AAAA")));

  EXPECT_EQ(SontoArchive::sizeFromValue(SontoArchive::sizeArray(5, 4)), (std::pair{5.0f, 4.0f}));
  EXPECT_FALSE(SontoArchive::sizeFromValue(QJsonArray{5}));
  EXPECT_FALSE(SontoArchive::sizeFromValue(QJsonArray{5, "4"}));
  EXPECT_FALSE(SontoArchive::colorFromValue(QJsonArray{1, 0, 0}));
  EXPECT_EQ(SontoArchive::colorFromValue(SontoArchive::colorArray(0.25, 0.5, 0.75, 1)),
            (std::vector<double>{0.25, 0.5, 0.75, 1}));

  const std::pair<const char*, std::optional<unsigned long>> keys[] = {
      {"0", 0},         {"25", 25},        {"007", std::nullopt}, {"-1", std::nullopt},
      {"1e3", std::nullopt}, {" 1", std::nullopt}, {"", std::nullopt},   {"99999999999999999999", std::nullopt},
      {"1000000000", 1000000000ul},
  };
  for (const auto& [key, expected] : keys) EXPECT_EQ(SontoArchive::indexForKey(key), expected) << key;
  EXPECT_EQ(SontoArchive::keyForIndex(17), "17");
}
