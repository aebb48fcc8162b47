#include "VerdoDriver/Platform/ProxyEnvironment.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace verdo {

bool environmentNamesProxy() {
  // http_proxy in capitals libcurl ignores on purpose.
  constexpr std::array kNames = {"https_proxy", "HTTPS_PROXY", "http_proxy", "all_proxy",
                                 "ALL_PROXY"};
  return std::any_of(kNames.begin(), kNames.end(), [](const char* name) {
    const char* const value = std::getenv(name);
    return value && *value;
  });
}

}  // namespace verdo
