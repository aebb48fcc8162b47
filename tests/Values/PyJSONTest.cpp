#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <bit>
#include <cmath>
#include <limits>

#include <gmock/gmock.h>

namespace verdo {
namespace {

TEST(PyJSON, LaysValuesOutAsJsonDumpsDoes) {
  const JV value = JV::Object{{"b", 1},
                              {"a", JV::Array{nullptr, true, false, 1.0, -0.5}},
                              {"", JV::Object{}},
                              {"é\"", JV::Array{}},
                              {"low", std::numeric_limits<std::int64_t>::min()}};
  EXPECT_EQ(PyJSON::text(value),
            "{\"b\": 1, \"a\": [null, true, false, 1.0, -0.5], \"\": {}, \"\\u00e9\\\"\": [], "
            "\"low\": -9223372036854775808}");
}

// The right-hand sides are what Python 3's repr prints.
TEST(PyJSON, WritesFloatsAsPythonPrintsThem) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {1, "1.0"},
      {0.1, "0.1"},
      {0.1 + 0.2, "0.30000000000000004"},
      {1.0 / 3, "0.3333333333333333"},
      {-0.0, "-0.0"},
      {100, "100.0"},
      {123456.789, "123456.789"},
      {1e15, "1000000000000000.0"},
      {9999999999999998, "9999999999999998.0"},
      {9007199254740993.0, "9007199254740992.0"},
      {1e16, "1e+16"},
      {-1e16, "-1e+16"},
      {12345678901234567.0, "1.2345678901234568e+16"},
      {9223372036854775808.0, "9.223372036854776e+18"},
      {1e22, "1e+22"},
      {1e23, "1e+23"},
      {1e100, "1e+100"},
      {1e-4, "0.0001"},
      {0.00012345, "0.00012345"},
      {1e-5, "1e-05"},
      {0.000012345, "1.2345e-05"},
      {-1.5e-7, "-1.5e-07"},
      {1e-10, "1e-10"},
      {5e-324, "5e-324"},
      {2.2250738585072014e-308, "2.2250738585072014e-308"},
      {1.7976931348623157e308, "1.7976931348623157e+308"},
      {std::bit_cast<double>(0xf2a74de452e6b438), "-1.989032661366619e+244"},
      {std::bit_cast<double>(0x36f675cc81e74ef5), "6.294675241195386e-44"},
      {std::bit_cast<double>(0x3d9c172411e20b8f), "6.387016158513563e-12"},
      {1e300 * 1e10, "Infinity"},
      {-HUGE_VAL, "-Infinity"},
      {std::nan(""), "NaN"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(PyJSON::pyFloat(value), text);
}

TEST(PyJSON, QuotesLikePythonsRepr) {
  const struct {
    std::string_view text, repr;
  } cases[] = {
      {"", "''"},
      {"abc", "'abc'"},
      {"it's", "\"it's\""},
      {"say \"x\"", "'say \"x\"'"},
      {"a'b\"c", "'a\\'b\"c'"},
      {"a\\b", "'a\\\\b'"},
      {{"\n\r\t\0\x1f\x7f", 6}, "'\\n\\r\\t\\x00\\x1f\\x7f'"},
      {"é😀", "'é😀'"},
  };
  for (const auto& [text, repr] : cases) EXPECT_EQ(PyJSON::pyRepr(text), repr);
}

struct Escape {
  std::string_view bytes, json;
};

// What Python's json.dumps gives for the bytes decoded with errors="replace".
constexpr Escape kEscapes[] = {
    {"\b\t\n\f\r", "\\b\\t\\n\\f\\r"},
    {{"\0\x01\x0b\x1f\x7f", 5}, "\\u0000\\u0001\\u000b\\u001f\\u007f"},
    {"\"\\/", "\\\"\\\\/"},
    {" ~", " ~"},
    {"é", "\\u00e9"},
    {"€", "\\u20ac"},
    {"😀", "\\ud83d\\ude00"},
    {"\xf4\x8f\xbf\xbf", "\\udbff\\udfff"},
    {"\xc3", "\\ufffd"},
    {"\x80", "\\ufffd"},
    {"\xff\xfe", "\\ufffd\\ufffd"},
    {"\xc0\x80", "\\ufffd\\ufffd"},
    {"\xe2\x82", "\\ufffd"},
    {"\xe2\x82\xe2\x82\xac", "\\ufffd\\u20ac"},
    {"\xc3\xc3\xa9", "\\ufffd\\u00e9"},
    {"\xe0\x80\x80", "\\ufffd\\ufffd\\ufffd"},
    {"\xed\xa0\x80", "\\ufffd\\ufffd\\ufffd"},
    {"\xf0\x9f\x98", "\\ufffd"},
    {"\xf0\x9f\x98x", "\\ufffdx"},
    {"\xf0\x80\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd"},
    {"\xf1\x80\x80\xc3\xa9", "\\ufffd\\u00e9"},
    {"\xf4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd"},
    {"\xf5\x80", "\\ufffd\\ufffd"},
};

// Text is looked at in blocks of sixteen bytes: every escape has to survive at every place in one.
TEST(PyJSON, EscapesAnywhereInABlock) {
  for (const auto& [bytes, json] : kEscapes) {
    for (std::size_t before = 0; before <= 33; ++before) {
      for (const std::size_t after : {0, 1, 15, 16, 17}) {
        const std::string head(before, 'h');
        const std::string tail(after, 't');
        std::string out = "kept";
        PyJSON::writeString(head + std::string(bytes) + tail, out);
        ASSERT_EQ(out, "kept\"" + head + std::string(json) + tail + "\"")
            << before << " bytes before, " << after << " behind";
      }
    }
  }
}

TEST(Utf8, CountsAndCutsCharactersNotBytes) {
  const std::string text = "aé€😀\xff";
  EXPECT_EQ(countCharacters(text), 5u);
  EXPECT_EQ(repairUtf8(text), "aé€😀\xef\xbf\xbd");
  EXPECT_EQ(firstCharacters(text, 3), "aé€");
  EXPECT_EQ(firstCharacters(text, 99), "aé€😀\xef\xbf\xbd");
  EXPECT_EQ(lastCharacters(text, 2), "😀\xef\xbf\xbd");
  EXPECT_EQ(lastCharacters(text, 99), "aé€😀\xef\xbf\xbd");
  EXPECT_EQ(lastCharacters("", 4), "");
}

}  // namespace
}  // namespace verdo
