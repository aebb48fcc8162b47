#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::string_literals;

// Each text is what Python 3's repr prints for the number that it reads as.
TEST(PyJSON, WritesFloatsAsPythonPrintsThem) {
  std::istringstream texts(
      "1.0 0.1 0.30000000000000004 0.3333333333333333 -0.0 100.0 123456.789 1000000000000000.0 "
      "9999999999999998.0 9007199254740992.0 1e+16 -1e+16 1.2345678901234568e+16 1e+100 0.0001 "
      "0.00012345 1e-05 1.2345e-05 5e-324 2.2250738585072014e-308 1.7976931348623157e+308 "
      "-1.989032661366619e+244 6.387016158513563e-12");
  for (std::string text; texts >> text;) {
    EXPECT_EQ(PyJSON::pyFloat(std::strtod(text.c_str(), nullptr)), text);
  }
  EXPECT_EQ(PyJSON::pyFloat(HUGE_VAL), "Infinity");
  EXPECT_EQ(PyJSON::pyFloat(-HUGE_VAL), "-Infinity");
  EXPECT_EQ(PyJSON::pyFloat(std::nan("")), "NaN");
}

TEST(PyJSON, QuotesLikePythonsRepr) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "''"},
      {"it's", "\"it's\""},
      {"say \"x\"", "'say \"x\"'"},
      {"a'b\"c", "'a\\'b\"c'"},
      {"a\\b é", "'a\\\\b é'"},
      {"\n\r\t\0\x1f\x7f"s, "'\\n\\r\\t\\x00\\x1f\\x7f'"}};
  for (const auto& [text, repr] : cases) EXPECT_EQ(PyJSON::pyRepr(text), repr);
}

// What Python's json.dumps gives for the bytes decoded with errors="replace". Text is looked at in
// blocks of sixteen bytes: every case has to come out right at every place in one.
TEST(PyJSON, EscapesAnywhereInABlock) {
  const std::string bad = "\\ufffd";
  const std::pair<std::string, std::string> cases[] = {
      {"\b\t\n\f\r\"\\/ ~", "\\b\\t\\n\\f\\r\\\"\\\\/ ~"},
      {"\0\x01\x0b\x1f\x7f"s, "\\u0000\\u0001\\u000b\\u001f\\u007f"},
      {"é€😀\xf4\x8f\xbf\xbf", "\\u00e9\\u20ac\\ud83d\\ude00\\udbff\\udfff"},
      {"\xc3", bad},
      {"\x80", bad},
      {"\xff\xfe", bad + bad},
      {"\xc0\x80", bad + bad},
      {"\xe2\x82\xe2\x82\xac", bad + "\\u20ac"},
      {"\xc3\xc3\xa9", bad + "\\u00e9"},
      {"\xe0\x80\x80", bad + bad + bad},
      {"\xed\xa0\x80", bad + bad + bad},
      {"\xf0\x9f\x98x", bad + "x"},
      {"\xf0\x9f\x98", bad},
      {"\xf1\x80\x80\xc3\xa9", bad + "\\u00e9"},
      {"\xf4\x90\x80\x80", bad + bad + bad + bad},
      {"\xf5\x80", bad + bad}};
  for (const auto& [bytes, json] : cases) {
    for (std::size_t before = 0; before <= 33; ++before) {
      for (const std::size_t after : {0u, 1u, 15u, 16u, 17u}) {
        const std::string head(before, 'h');
        const std::string tail(after, 't');
        std::string out = "kept";
        PyJSON::writeString(head + bytes + tail, out);
        ASSERT_EQ(out, "kept\"" + head + json + tail + "\"") << before << " before, " << after;
      }
    }
  }
}

TEST(Utf8, CutsCharactersNotBytes) {
  const std::string text = "aé€😀\xff";
  EXPECT_EQ(countCharacters(text), 5u);
  EXPECT_EQ(firstCharacters(text, 3), "aé€");
  EXPECT_EQ(lastCharacters(text, 2), "😀\xef\xbf\xbd");
  EXPECT_EQ(lastCharacters(text, 99), repairUtf8(text));
}

}  // namespace
}  // namespace verdo
