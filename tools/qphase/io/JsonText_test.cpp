#include "JsonText.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Quarn::Qphase {
namespace {

using Json = nlohmann::ordered_json;

// A string written into a document and parsed back. The parser refuses invalid UTF-8 and raw
// control characters, so reading the document back also proves it is valid JSON.
std::string RoundTrip(const std::string& text) {
  return Json::parse(JsonText(Json{{"s", text}})).at("s").get<std::string>();
}

struct StringCase {
  const char* what;
  std::string written;
  std::string readBack;
};

TEST(JsonTextTest, StringsReadBackAndInvalidUtf8BecomesTheReplacementCharacter) {
  const std::string fffd = "\xef\xbf\xbd";  // U+FFFD in UTF-8
  const std::vector<StringCase> cases = {
      {"quote and backslash", "say \"hi\" to C:\\data", "say \"hi\" to C:\\data"},
      {"control characters", std::string("a\nb\tc\rd\be\ff\x01\x1f nul\0!", 20),
       std::string("a\nb\tc\rd\be\ff\x01\x1f nul\0!", 20)},
      {"slash and DEL", "/ \x7f", "/ \x7f"},
      {"2, 3 and 4 byte UTF-8", "\xc2\xb5m \xe2\x82\xac \xf0\x9f\x94\xad",
       "\xc2\xb5m \xe2\x82\xac \xf0\x9f\x94\xad"},
      {"Latin-1 file name", "caf\xe9.tif", "caf" + fffd + ".tif"},
      {"stray continuation byte", "\x80x", fffd + "x"},
      {"truncated sequence", "\xe2\x82", fffd},
      {"truncated sequence inside", "\xe2\x82x", fffd + "x"},
      {"overlong slash", "\xe0\x80\xaf", fffd + fffd + fffd},
      {"encoded surrogate", "\xed\xa0\x80", fffd + fffd + fffd},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80", fffd + fffd + fffd + fffd},
  };
  for (const StringCase& c : cases)
    EXPECT_EQ(RoundTrip(c.written), c.readBack) << c.what;
  // Control characters are escaped, not written raw.
  EXPECT_EQ(JsonText(Json(std::string("\x01\n", 2))), "\"\\u0001\\n\"\n");
}

// Every finite double comes back bit for bit (sign of zero, subnormals, the extremes and a spread
// of random bit patterns), so a summary can be compared with the maps it describes.
TEST(JsonTextTest, DoublesReadBackBitForBit) {
  std::vector<double> values = {0.1,
                                0.1 + 0.2,
                                1.0 / 3.0,
                                2.5,
                                1e300,
                                -0.0,
                                0.0,
                                5e-324,
                                std::numeric_limits<double>::min(),
                                std::numeric_limits<double>::max(),
                                -std::numeric_limits<double>::max(),
                                9007199254740993.0,
                                123456789012345680.0};
  std::mt19937_64 random(14);
  while (values.size() < 20000) {
    const double value = std::bit_cast<double>(random());
    if (std::isfinite(value)) values.push_back(value);
  }
  Json array = Json::array();
  for (double value : values)
    array.push_back(value);
  const Json back = Json::parse(JsonText(array));
  ASSERT_EQ(back.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_TRUE(back[i].is_number_float()) << i;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(back[i].get<double>()), std::bit_cast<std::uint64_t>(values[i]))
        << "value " << i << " written as " << back[i].dump();
  }
}

TEST(JsonTextTest, NonFiniteNumbersBecomeNull) {
  const Json document = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity(), 1.5};
  const Json back = Json::parse(JsonText(document));
  EXPECT_TRUE(back[0].is_null() && back[1].is_null() && back[2].is_null());
  EXPECT_EQ(back[3].get<double>(), 1.5);
}

// The layout the command tests and shell users grep for: two-space indent, `"key": value`, members
// in the order written, an empty object kept, a final newline.
TEST(JsonTextTest, LayoutIsIndentedInTheOrderWritten) {
  Json document;
  document["position"] = "Quadrant2";
  document["code"] = 2;
  document["values"] = {2.5, 0.1};
  document["empty"] = Json::object();
  document["flag"] = true;
  EXPECT_EQ(JsonText(document),
            "{\n"
            "  \"position\": \"Quadrant2\",\n"
            "  \"code\": 2,\n"
            "  \"values\": [\n"
            "    2.5,\n"
            "    0.1\n"
            "  ],\n"
            "  \"empty\": {},\n"
            "  \"flag\": true\n"
            "}\n");
}

}  // namespace
}  // namespace Quarn::Qphase
