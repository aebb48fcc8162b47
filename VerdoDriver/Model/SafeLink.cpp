#include "VerdoDriver/Model/SafeLink.h"

#include "VerdoDriver/Model/WebLink.h"

namespace verdo::SafeLink {

std::optional<std::string> allowed(const std::optional<std::string>& link,
                                   const std::string& server) {
  auto url = link ? WebLink::parse(*link) : std::nullopt;
  if (!url || url->starts_with("https://") || WebLink::sameOrigin(*url, server)) return url;
  return std::nullopt;
}

}  // namespace verdo::SafeLink
