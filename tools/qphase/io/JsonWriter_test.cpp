#include "JsonWriter.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace Quarn::Qphase {
namespace {

TEST(JsonWriterTest, StringsAreEscapedAsTheGrammarDemands) {
  EXPECT_EQ(JsonWriter::Quote("say \"hi\""), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(JsonWriter::Quote("C:\\data\\spot.tif"), "\"C:\\\\data\\\\spot.tif\"");
  EXPECT_EQ(JsonWriter::Quote("a\nb\tc\rd\be\ff"), "\"a\\nb\\tc\\rd\\be\\ff\"");
  EXPECT_EQ(JsonWriter::Quote(std::string("\x01\x1f", 2)), "\"\\u0001\\u001f\"");
  EXPECT_EQ(JsonWriter::Quote(std::string("nul\0byte", 8)), "\"nul\\u0000byte\"");
  EXPECT_EQ(JsonWriter::Quote("/ and \x7f stay"), "\"/ and \x7f stay\"");
  // Valid UTF-8 passes: 2, 3 and 4 byte sequences (mu, the euro sign, an emoji).
  EXPECT_EQ(JsonWriter::Quote("\xc2\xb5m \xe2\x82\xac \xf0\x9f\x94\xad"),
            "\"\xc2\xb5m \xe2\x82\xac \xf0\x9f\x94\xad\"");
  // Invalid bytes become U+FFFD one by one: Latin-1, a stray continuation byte, a truncated
  // sequence, an overlong slash, an encoded surrogate.
  EXPECT_EQ(JsonWriter::Quote("caf\xe9"), "\"caf\\ufffd\"");
  EXPECT_EQ(JsonWriter::Quote("\x80x"), "\"\\ufffdx\"");
  EXPECT_EQ(JsonWriter::Quote("\xe2\x82"), "\"\\ufffd\\ufffd\"");
  EXPECT_EQ(JsonWriter::Quote("\xe0\x80\xaf"), "\"\\ufffd\\ufffd\\ufffd\"");
  EXPECT_EQ(JsonWriter::Quote("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");
}

TEST(JsonWriterTest, NestedDocumentWithNumbersThatReadBack) {
  JsonWriter json;
  json.BeginObject();
  json.Key("position").String("Quadrant2");
  json.Key("code").Integer(2);
  json.Key("values").BeginArray().Number(2.5).Number(0.1).Number(0.1 + 0.2).Number(1e300).EndArray();
  json.Key("undefined").Number(std::numeric_limits<double>::quiet_NaN());
  json.Key("infinite").Number(-INFINITY);
  json.Key("empty").BeginObject().EndObject();
  json.Key("flag").Bool(true);
  json.EndObject();
  EXPECT_EQ(json.Text(),
            "{\n"
            "  \"position\": \"Quadrant2\",\n"
            "  \"code\": 2,\n"
            "  \"values\": [\n"
            "    2.5,\n"
            "    0.1,\n"
            "    0.30000000000000004,\n"
            "    1e+300\n"
            "  ],\n"
            "  \"undefined\": null,\n"
            "  \"infinite\": null,\n"
            "  \"empty\": {},\n"
            "  \"flag\": true\n"
            "}\n");
  EXPECT_NE(std::strtod("0.3000000000000000", nullptr), 0.1 + 0.2)
      << "17 digits where 16 would not read back";
}

TEST(JsonWriterTest, MisuseIsRefused) {
  JsonWriter noKey;
  noKey.BeginObject();
  EXPECT_THROW(noKey.String("x"), std::logic_error);
  EXPECT_THROW(noKey.EndArray(), std::logic_error);
  EXPECT_THROW(noKey.Text(), std::logic_error) << "still open";
  JsonWriter twice;
  twice.Null();
  EXPECT_THROW(twice.Null(), std::logic_error) << "one value per document";
  EXPECT_EQ(twice.Text(), "null\n");
}

}  // namespace
}  // namespace Quarn::Qphase
