#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "tests/Support/FailureOf.h"

#include <iterator>
#include <random>
#include <sstream>
#include <type_traits>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace verdo {
namespace {

using namespace std::string_literals;
using test::failureOf;

/// The text of what a tolerant reading gives, and its defect.
std::pair<std::string, std::string> readTolerantly(std::string_view text) {
  const JsonReading reading = readJson(text);
  return {PyJSON::text(reading.value), reading.defect.value_or("")};
}

TEST(JsonReader, OneBadValueCostsTheWholeReply) {
  const std::string deep(513, '[');
  const std::string shallow(513, ']');
  const struct {
    std::string text, value, defect;
  } table[] = {{R"([1e400, -1e400, 1e-400, 2])", "[null, null, 0.0, 2]",
                "number out of range at position 1"},
               {R"({"a": [[1]], "b": )" + deep + "{\"c\": \"\\n\"}" + shallow + R"(, "id": 7})", "",
                "nested more than 512 levels deep"},
               {"[\"a\xc3\", \"\xff\xef\xbf\xbd\"]", R"(["a\ufffd", "\ufffd\ufffd"])",
                "not UTF-8 at position 3"}};
  for (const auto& row : table) {
    const auto [value, defect] = readTolerantly(row.text);
    if (!row.value.empty()) {
      EXPECT_EQ(value, row.value);
    }
    EXPECT_EQ(defect, row.defect);
    EXPECT_EQ(failureOf([&] { parseJson(row.text); }), "JSONDecodeError: " + row.defect);
    EXPECT_NE(failureOf([&] { readJson(row.text + "]"); }), "");
  }
  EXPECT_EQ(*readJson(table[1].text).value.find("id"), JV(7));
  EXPECT_NO_THROW(parseJson(std::string(512, '[') + std::string(512, ']')));
  EXPECT_NE(failureOf([&] { readJson(std::string(1'000'000, '[')); }), "");
}

TEST(JsonReader, HalfASurrogatePairMakesATextUnreadable) {
  const std::pair<const char*, const char*> table[] = {
      {R"("\ud83d")", "\xef\xbf\xbd"},
      {R"("a\udc00 ")", "a\xef\xbf\xbd "},
      {R"("\ud83d\u0020")", "\xef\xbf\xbd "},
      {R"("\ud83d\n")", "\xef\xbf\xbd\n"},
      {R"("\ud83d\ud83d\ude00")", "\xef\xbf\xbd😀"},
      {R"("\uD83D\uDE00\ude00")", "😀\xef\xbf\xbd"}};
  for (const auto& [text, value] : table) {
    EXPECT_EQ(parseJson(text), JV(value)) << text;
    EXPECT_EQ(readTolerantly(text).second, "") << text;
  }
}

TEST(JsonReader, SmallValuesCostManyTimesTheirText) {
  const auto list = [](std::size_t count) {
    std::string text = "[0";
    for (std::size_t i = 1; i < count; ++i) text += i % 2 ? ",0" : ",[]";
    return text + "]";
  };
  EXPECT_EQ(parseJson(list(kMaxJsonValues - 1)).asArray()->size(), kMaxJsonValues - 1);
  EXPECT_EQ(failureOf([&] { parseJson(list(kMaxJsonValues)); }),
            "JSONDecodeError: more than 500000 values");
  const auto reading =
      readJson(R"({"job": {"files": )" + list(kMaxJsonValues + 9) + R"(, "job_id": 7}, "b": {}})");
  EXPECT_EQ(reading.defect, "more than 500000 values");
  EXPECT_LT(reading.value.find("job")->find("files")->asArray()->size(), kMaxJsonValues);
  ASSERT_TRUE(reading.value.find("job")->find("job_id") && reading.value.find("b"));
  EXPECT_EQ(*reading.value.find("job")->find("job_id"), JV(7));
  EXPECT_EQ(*reading.value.find("b"), JV(JV::Object{}));
  std::string flood = R"({"job": {)";
  for (std::size_t i = 0; i < kMaxJsonValues; ++i) flood += "\"\": {}, ";
  EXPECT_EQ(readTolerantly(flood + R"("job_id": 7}})").second, "more than 500000 values");
}

TEST(JsonReader, FirstOfARepeatedKeyWins) {
  EXPECT_EQ(PyJSON::text(parseJson(R"({"b": 1, "a": 2, "b": {"c": 3, "c": 4}, "a": 5, "d": 6,
                                       "b": 7})")),
            R"({"b": 7, "a": 5, "d": 6})");
  EXPECT_EQ(PyJSON::text(parseJson(R"([{"": [1], "x": 0, "": [2]}])")), R"([{"": [2], "x": 0}])");
}

// Some texts, and more put together at random, most of them nearly JSON.
TEST(JsonReader, DisagreesWithAnotherReaderOrRefusesUnreadably) {
  std::istringstream words(
      R"({ { } [ [ ] ] , , , : : "a" "b": " 'a' //c \n \u00E9 "\u12g4" "\ud83d\u" é 😀 true false
         null tru NaN 0 - 1 -0 .5 e3 E-40 1e309 007 2.50 1. "\/" [] {} 18446744073709551615
         9223372036854775808 -9223372036854775808)");
  std::vector<std::string> parts{" ", "\n", "\xc3", "\"\xed\xa0\x80\"", "\x01"};
  parts.insert(parts.end(), std::istream_iterator<std::string>(words), {});
  std::vector<std::string> texts{"", " ", "\xef\xbb\xbf[]", '"' + std::string(5000, 'x') + "\n\""};
  std::mt19937 random(7);
  const auto upTo = [&](std::size_t count) { return random() % count; };
  while (texts.size() < 50'000) {
    std::string& text = texts.emplace_back(upTo(2) == 0 ? "[" : "{\"a\":");
    const char close = text == "[" ? ']' : '}';
    for (std::size_t count = upTo(6); count > 0; --count) text += parts[upTo(parts.size())];
    text += close;
  }
  int sound = 0;
  for (const auto& text : texts) {
    const auto expected = nlohmann::ordered_json::parse(text, nullptr, false);
    std::optional<JV> value;
    const auto failure = failureOf([&] { value = parseJson(text); });
    ASSERT_EQ(value.has_value(), !expected.is_discarded()) << text;
    if (value) {
      ASSERT_EQ(nlohmann::ordered_json::parse(PyJSON::text(*value)), expected) << text;
      ++sound;
    } else {
      ASSERT_TRUE(failure.starts_with("JSONDecodeError: ")) << text << failure;
      ASSERT_TRUE(failure.size() <= 100 && failure.find('\n') == failure.npos) << failure;
    }
  }
  EXPECT_GT(sound, 500);
  EXPECT_NE(failureOf([&] { parseJson("1\0junk"s); }), "");
}

// A pointer would otherwise pass for a truth value.
static_assert(!std::is_constructible_v<JV, const void*> && !std::is_constructible_v<JV, JV*>);

}  // namespace
}  // namespace verdo
