#include "VerdoDriver/Platform/DesktopProxy.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Platform/ProxyEnvironment.h"
#include "VerdoDriver/Platform/macOS/CFHandle.h"

#include <CFNetwork/CFNetwork.h>
#include <fmt/format.h>

namespace verdo {
namespace {

/// As libcurl takes it; empty for none.
std::string addressOf(CFDictionaryRef proxy) {
  const auto is = [type = textOf(CFDictionaryGetValue(proxy, kCFProxyTypeKey))](CFStringRef name) {
    return type && type == textOf(name);
  };
  if (is(kCFProxyTypeNone)) return {};
  // A proxy "for https" is spoken to in plain HTTP, too: the type tells what goes through it.
  const bool isHttp = is(kCFProxyTypeHTTP) || is(kCFProxyTypeHTTPS);
  if (!isHttp && !is(kCFProxyTypeSOCKS)) {
    AppLog::settings.info(
        "[DesktopProxy] the system's settings name a script, which is not followed");
    return {};
  }
  const auto host = textOf(CFDictionaryGetValue(proxy, kCFProxyHostNameKey)).value_or("");
  const auto number = static_cast<CFNumberRef>(CFDictionaryGetValue(proxy, kCFProxyPortNumberKey));
  int port = 0;
  if (!number || !CFNumberGetValue(number, kCFNumberIntType, &port) || host.empty()) return {};
  return fmt::format("{}://{}:{}", isHttp ? "http" : "socks5h", host, port);
}

}  // namespace

std::string desktopProxyFor(const std::string& url) {
  if (environmentNamesProxy()) return {};
  const CFHandle<CFURLRef> target(
      CFURLCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(url.data()),
                           static_cast<CFIndex>(url.size()), kCFStringEncodingUTF8, nullptr));
  const CFHandle<CFDictionaryRef> settings(CFNetworkCopySystemProxySettings());
  if (!target || !settings) return {};
  const CFHandle<CFArrayRef> proxies(CFNetworkCopyProxiesForURL(target.get(), settings.get()));
  if (!proxies || CFArrayGetCount(proxies.get()) == 0) return {};
  return addressOf(static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(proxies.get(), 0)));
}

}  // namespace verdo
