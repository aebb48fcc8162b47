#include "VerdoDriverCore/Contract/SecretScrub.h"

#include <string>
#include <utility>

#include <gmock/gmock.h>

namespace verdo::test {
namespace {

TEST(SecretScrub, LetsASecretOrItsBeginningThrough) {
  const SecretScrub scrub{"", "s3cret/+\"key", "s3cret/+\"key-2", "%41b"};
  const std::pair<const char*, const char*> table[] = {
      {"no secret: s3cre, key", "no secret: s3cre, key"},
      {"a s3cret/+\"key b", "a … b"},
      {"s3cret/+\"keys3cret/+\"key", "……"},
      {"s3cret/+\"key-2", "…"},
      {"s3cret/+\"key-", "…"},
      {"?k=s3cret%2F%2b%22key&", "?k=…&"},
      {"%733cret/+\"key", "…"},
      {R"({"k": "s3cret\/+\"key"})", R"({"k": "…"})"},
      {R"({"k": "s3cret\u002F+\u0022key"})", R"({"k": "…"})"},
      {"%41b %2541b Ab", "… … Ab"},
      {"cut: s3cret%2", "cut: …"},
      {"cut: s3c", "cut: …"},
      {"cut: s3", "cut: s3"},
      {"s3cret\xff", "s3cret\xef\xbf\xbd"},
  };
  for (const auto& [text, expected] : table) EXPECT_EQ(scrub.scrubbed(text), expected);
  EXPECT_EQ(SecretScrub().scrubbed("%41 \\u"), "%41 \\u");
}

TEST(SecretScrub, CutsASecretInTwo) {
  const SecretScrub scrub{"s3cret"};
  for (std::size_t before = 0; before < 12; ++before) {
    const auto text = std::string(before, 'x') + "s3cretyy";
    const auto whole = std::string(before, 'x') + "…yy";
    EXPECT_EQ(scrub.excerpt(text, 10),
              before < 10 ? scrub.excerpt(whole, 10) : whole.substr(0, 10));
  }
}

}  // namespace
}  // namespace verdo::test
