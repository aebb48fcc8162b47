#include "VerdoDriver/Model/SafeLink.h"

#include "VerdoDriver/Model/WebLink.h"

namespace verdo::SafeLink {

std::optional<std::string> allowed(const std::optional<std::string>& link,
                                   const std::string& server) {
  const auto url = link ? WebLink::parse(*link) : std::nullopt;
  if (!url) return std::nullopt;
  if (url->scheme() != "https") {
    const auto origin = WebLink::parse(server);
    if (!origin || !WebLink::sameOrigin(*url, *origin)) return std::nullopt;
  }
  return url->toEncoded().toStdString();
}

}  // namespace verdo::SafeLink
