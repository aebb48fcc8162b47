#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/PyValue.h"
#include "tests/Support/FailureOf.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::string_literals;
using test::failureOf;

TEST(JsonReader, RefusesWithOneReadableLine) {
  for (const std::string& text :
       std::initializer_list<std::string>{"",
                                          " ",
                                          "{",
                                          "[1,]",
                                          "{\"a\":1,}",
                                          "{'a': 1}",
                                          "[1] x",
                                          "nul",
                                          "NaN",
                                          "01",
                                          "+1",
                                          ".5",
                                          "1e999",
                                          "-1e999",
                                          "\"a\nb\"",
                                          "\"\\x\"",
                                          "// c\n1",
                                          "\"\xff\"",
                                          "\"\xc3\"",
                                          "[\"\xed\xa0\x80\"]",
                                          "\"\\ud83d\"",
                                          "\"\\udc00\"",
                                          "\"\\ud83d\\u0041\"",
                                          "1\0"s,
                                          "1\0junk"s,
                                          "\"" + std::string(5000, 'x') + "\n\""}) {
    const std::string failure = failureOf([&] { parseJson(text); });
    EXPECT_THAT(failure, testing::MatchesRegex("JSONDecodeError: [^\n]+")) << text;
    EXPECT_THAT(failure, testing::Not(testing::HasSubstr("json.exception")));
    EXPECT_LE(failure.size(), 600u);
  }
}

TEST(JsonReader, BoundsTheDepth) {
  const auto nested = [](std::size_t depth, const std::string& open, const std::string& close) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text = open + text + close;
    return text;
  };
  for (const std::size_t depth : {511u, 512u}) EXPECT_NO_THROW(parseJson(nested(depth, "[", "]")));
  EXPECT_NO_THROW(parseJson(nested(255, "[{\"a\":", "}]").insert(255 * 6, "[{}]")));
  EXPECT_EQ(failureOf([&] { parseJson(nested(513, "[", "]")); }),
            "JSONDecodeError: nested more than 512 levels deep");
  EXPECT_NE(failureOf([&] { parseJson(nested(300, "[{\"a\":", "}]")); }), "");
  EXPECT_NE(failureOf([&] { parseJson(std::string(1'000'000, '[')); }), "");
}

std::pair<std::string, bool> readStr(const char* json) {
  const JV value = parseJson(json);
  return {pyStr(&value).value_or("None"), pyTruthy(&value)};
}

TEST(PyValue, ReadsValuesAsPythonWould) {
  using Integer = std::optional<std::int64_t>;
  const std::pair<const char*, const char*> truthy[] = {
      {"true", "True"}, {"3", "3"}, {"3.0", "3.0"}, {"\"0\"", "0"}, {"[0]", "[0]"}};
  const std::pair<const char*, const char*> falsy[] = {
      {"false", "False"}, {"0", "0"}, {"-0.0", "-0.0"}, {"\"\"", ""}, {"[]", "[]"}, {"{}", "{}"}};
  for (const auto& [json, text] : truthy)
    EXPECT_EQ(readStr(json), std::pair(std::string(text), true)) << json;
  for (const auto& [json, text] : falsy)
    EXPECT_EQ(readStr(json), std::pair(std::string(text), false)) << json;
  EXPECT_EQ(readStr("null"), std::pair(std::string("None"), false));
  for (const char* json : {"true", "3.0", "null", "[1]"}) {
    const JV value = parseJson(json);
    EXPECT_EQ(pyInt(&value), std::nullopt) << json;
  }
  const std::pair<const char*, Integer> integers[] = {
      {"+7", 7},   {"-7", -7},  {"007", 7}, {"9223372036854775807", INT64_MAX},
      {"+-7", {}}, {"--7", {}}, {"+", {}},  {"9223372036854775808", {}},
      {"-", {}},   {" 7", {}},  {"7 ", {}}, {"-9223372036854775808", INT64_MIN},
      {"4x2", {}}, {"7.0", {}}, {"٣", {}}};
  for (const auto& [text, integer] : integers) {
    const JV value(text);
    EXPECT_EQ(pyInt(&value), integer) << text;
  }
  EXPECT_EQ(pyStr(nullptr), std::nullopt);
  EXPECT_FALSE(pyTruthy(nullptr));
  EXPECT_EQ(pyInt(nullptr), std::nullopt);
}

}  // namespace
}  // namespace verdo
