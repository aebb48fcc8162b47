#include "VerdoDriver/Platform/DesktopProxy.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/Linux/GLibHandles.h"
#include "VerdoDriver/Platform/ProxyEnvironment.h"

#include <string_view>
#include <system_error>

namespace verdo {
namespace {

constexpr std::chrono::seconds kLimit{5};

/// GLib says "socks" for a proxy of version 5 that also looks up names, and "direct" for none.
std::string asLibcurlNamesIt(std::string_view proxy) {
  constexpr std::string_view kSocks = "socks://";
  if (proxy.starts_with("direct:")) return {};
  if (proxy.starts_with(kSocks)) return "socks5h://" + std::string(proxy.substr(kSocks.size()));
  return std::string(proxy);
}

}  // namespace

std::string desktopProxyFor(const std::string& url) try {
  if (environmentNamesProxy()) return {};
  const BoundedGLibCalls calls(kLimit);
  GLibPtr<GError> error;
  const std::unique_ptr<gchar*, decltype(&g_strfreev)> proxies(
      g_proxy_resolver_lookup(g_proxy_resolver_get_default(), url.c_str(), calls.cancellable(),
                              OutError(error)),
      &g_strfreev);
  if (proxies && *proxies) return asLibcurlNamesIt(*proxies);
  AppLog::settings.info(std::string("[DesktopProxy] the desktop does not tell its proxy: ") +
                        (error ? error->message : "no reason given"));
  return {};
} catch (const std::system_error& error) {
  AppLog::settings.error(std::string("[DesktopProxy] the desktop's proxy cannot be asked for: ") +
                         error.what());
  return {};
}

}  // namespace verdo
