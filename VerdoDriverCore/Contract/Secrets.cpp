#include "VerdoDriverCore/Contract/Secrets.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cstdlib>

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <sys/resource.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): not declared on macOS

namespace verdo {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n\v\f";

/// The variable's first value, as getenv gives it.
std::string eraseVariable(const std::string& name) {
  std::optional<std::string> first;
  const std::string prefix = name + "=";
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view text = *entry;
    if (!text.starts_with(prefix)) continue;
    if (!first) first = text.substr(prefix.size());
    // unsetenv only forgets where the text is; the kernel still shows it to the user's processes.
    OPENSSL_cleanse(*entry + prefix.size(), text.size() - prefix.size());
  }
  ::unsetenv(name.c_str());
  return first.value_or("");
}

}  // namespace

Secrets eraseSecretsFromEnvironment() {
  return {eraseVariable(DriverConstants::tokenEnv), eraseVariable(DriverConstants::llmKeyEnv)};
}

void forbidCoreDumps() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_CORE, &limit) != 0) return;
  limit.rlim_cur = 0;
  ::setrlimit(RLIMIT_CORE, &limit);
}

std::string trimmedSecret(std::string_view secret) {
  const auto begin = secret.find_first_not_of(kWhiteSpace);
  if (begin == std::string_view::npos) return "";
  const auto end = secret.find_last_not_of(kWhiteSpace);
  return std::string(secret.substr(begin, end - begin + 1));
}

std::optional<std::string> secretRefusal(std::string_view name, std::string_view secret) {
  if (!hasControlByte(secret)) return std::nullopt;
  return fmt::format(
      "the {} holds a control character, such as a line end inside it; copy it again, as one line",
      name);
}

}  // namespace verdo
