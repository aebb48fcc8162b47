#include "VerdoDriver/Model/ServerURL.h"

#include "VerdoDriver/Model/WebLink.h"
#include "VerdoDriverCore/Contract/ServerURLPolicy.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QString>

#include <fmt/format.h>

namespace verdo {

std::string trimmedServerUrl(const std::string& text) {
  return withoutTrailingSlashes(QString::fromStdString(text).trimmed().toStdString());
}

tl::expected<std::string, Refusal> validateServerURL(const std::string& text, bool allowInsecure) {
  const auto refuse = [](std::string message) {
    return tl::make_unexpected(Refusal{std::move(message)});
  };
  std::string url = trimmedServerUrl(text);
  if (url.empty()) return refuse("Enter the server URL.");
  // Asked first, since the other refusals repeat the text; and leniently, as to this alone.
  if (const auto refusal = ServerURLPolicy::refusal(lowerScheme(url), true)) {
    return refuse(*refusal);
  }
  if (!url.starts_with("https://") && !url.starts_with("http://")) {
    return refuse(fmt::format("The server URL must start with https:// (got {}).", url));
  }
  if (!WebLink::parse(url)) {
    return refuse(fmt::format("{} is not a valid URL.", url));
  }
  if (const auto refusal = ServerURLPolicy::refusal(url, allowInsecure)) return refuse(*refusal);
  if (const auto refusal = ServerURLPolicy::pathRefusal(url)) return refuse(*refusal);
  return url;
}

}  // namespace verdo
