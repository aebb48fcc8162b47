#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

using namespace std::string_literals;

std::string nested(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

TEST(JsonReader, ReadsWhatItsWriterWrites) {
  const struct {
    std::string_view text, again;
  } cases[] = {
      {" [1, -2, 0.5, true, null] \n", "[1, -2, 0.5, true, null]"},
      {"\"fragment\"", "\"fragment\""},
      {"\"\\ud83d\\ude00\\u0000/\\/\"", "\"\\ud83d\\ude00\\u0000//\""},
      {"{\"z\": {}, \"a\": [{\"k\": []}]}", "{\"z\": {}, \"a\": [{\"k\": []}]}"},
      {"{\"a\": 1, \"b\": 2, \"a\": [3], \"c\": 4}", "{\"a\": [3], \"b\": 2, \"c\": 4}"},
      {"9223372036854775807", "9223372036854775807"},
      {"-9223372036854775808", "-9223372036854775808"},
      {"9223372036854775808", "9.223372036854776e+18"},
      {"18446744073709551615", "1.8446744073709552e+19"},
      {"-9223372036854775809", "-9.223372036854776e+18"},
      {"123456789012345678901234567890", "1.2345678901234568e+29"},
      {"3.0", "3.0"},
      {"1E2", "100.0"},
      {"1e-999", "0.0"},
  };
  for (const auto& [text, again] : cases) EXPECT_EQ(PyJSON::text(parseJson(text)), again) << text;
}

TEST(JsonReader, RefusesWithOneReadableLine) {
  const std::string cases[] = {
      "",
      " ",
      "{",
      "[1,]",
      "{\"a\":1,}",
      "{'a': 1}",
      "[1] x",
      "nul",
      "NaN",
      "Infinity",
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
      "1\0"s,
      "1\0junk"s,
      "[1\0"s,
      "\"\\ud83d\\u0041\"",
      "\"" + std::string(5000, 'x') + "\n\"",
  };
  for (const auto& text : cases) {
    try {
      parseJson(text);
      ADD_FAILURE() << "accepted: " << testing::PrintToString(text);
    } catch (const PyError& error) {
      EXPECT_EQ(error.pyName(), "JSONDecodeError");
      const std::string reason = error.what();
      EXPECT_FALSE(reason.empty()) << testing::PrintToString(text);
      EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
      EXPECT_EQ(reason.find("json.exception"), std::string::npos) << reason;
      EXPECT_LE(reason.size(), 600u);
    }
  }
}

TEST(JsonReader, BoundsTheDepth) {
  for (const std::size_t depth : {kMaxJsonDepth - 1, kMaxJsonDepth}) {
    EXPECT_NO_THROW(parseJson(nested(depth, "[", "]")));
    EXPECT_NO_THROW(parseJson(nested(depth - 1, "{\"a\":", "}").insert(5 * (depth - 1), "{}")));
  }
  EXPECT_THROW(parseJson(nested(kMaxJsonDepth + 1, "[", "]")), PyError);
  EXPECT_THROW(parseJson(std::string(1'000'000, '[')), PyError);
  EXPECT_THROW(parseJson(nested(300, "[{\"a\":", "}]")), PyError);
}

TEST(JV, FindsTheLastOfRepeatedKeys) {
  const JV object = JV::Object{{"a", 1}, {"b", 2}, {"a", 3}};
  ASSERT_TRUE(object.find("a"));
  EXPECT_EQ(*object.find("a"), JV(3));
  EXPECT_EQ(object.find("c"), nullptr);
  EXPECT_EQ(JV(1).find("a"), nullptr);
  EXPECT_FALSE(JV(1) == JV(1.0));
  EXPECT_FALSE(JV(true).number());
}

TEST(PyValue, ReadsValuesAsPythonWould) {
  const struct {
    const char* json;
    const char* str;  ///< null: None
    bool truthy;
    std::optional<std::int64_t> integer;
  } cases[] = {
      {"null", nullptr, false, {}},
      {"true", "True", true, {}},
      {"false", "False", false, {}},
      {"3", "3", true, 3},
      {"3.0", "3.0", true, {}},
      {"0", "0", false, 0},
      {"-0.0", "-0.0", false, {}},
      {"\"\"", "", false, {}},
      {"\"0\"", "0", true, 0},
      {"\"+7\"", "+7", true, 7},
      {"\"-7\"", "-7", true, -7},
      {"\"+-7\"", "+-7", true, {}},
      {"\"--7\"", "--7", true, {}},
      {"\"+\"", "+", true, {}},
      {"\"-\"", "-", true, {}},
      {"\" 7\"", " 7", true, {}},
      {"\"7 \"", "7 ", true, {}},
      {"\"4x2\"", "4x2", true, {}},
      {"\"0x10\"", "0x10", true, {}},
      {"\"007\"", "007", true, 7},
      {"\"9223372036854775807\"", "9223372036854775807", true, INT64_MAX},
      {"\"9223372036854775808\"", "9223372036854775808", true, {}},
      {"\"-9223372036854775808\"", "-9223372036854775808", true, INT64_MIN},
      {"[]", "[]", false, {}},
      {"[0]", "[0]", true, {}},
      {"{}", "{}", false, {}},
      {"{\"a\": null}", "{\"a\": null}", true, {}},
  };
  for (const auto& [json, str, truthy, integer] : cases) {
    SCOPED_TRACE(json);
    const JV value = parseJson(json);
    EXPECT_EQ(pyStr(&value), str ? std::optional<std::string>(str) : std::nullopt);
    EXPECT_EQ(pyTruthy(&value), truthy);
    EXPECT_EQ(pyStrIfTruthy(&value), truthy ? pyStr(&value) : std::nullopt);
    EXPECT_EQ(pyInt(&value), integer);
  }
  EXPECT_EQ(pyStr(nullptr), std::nullopt);
  EXPECT_FALSE(pyTruthy(nullptr));
  EXPECT_EQ(pyInt(nullptr), std::nullopt);
}

TEST(PyError, NamesErrors) {
  struct LocalError : std::runtime_error {
    using runtime_error::runtime_error;
  };
  EXPECT_EQ(pyDescribe(PyError("ValueError", "no good")), "ValueError: no good");
  EXPECT_EQ(pyTypeName(std::out_of_range("x")), "out_of_range");
  EXPECT_EQ(pyTypeName(LocalError("x")), "LocalError");
  EXPECT_EQ(pyErrnoText(2, "/no/such"), "[Errno 2] No such file or directory: '/no/such'");
}

}  // namespace
}  // namespace verdo
