#include "VerdoDriver/Platform/BootTime.h"
#include "VerdoDriver/Platform/BundleFacts.h"
#include "VerdoDriver/Platform/DesktopProxy.h"
#include "VerdoDriver/Platform/LocalPeer.h"
#include "VerdoDriver/Platform/SystemParts.h"
#include "VerdoDriver/Platform/TrayWatch.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Platform/macOS/FakeSystem.h"
#include "tests/Support/ScopedEnv.h"

#include <sys/socket.h>

namespace verdo::test {
namespace {

using testing::ElementsAre;

class SystemFactsTest : public FakeSystem {};

TEST_F(SystemFactsTest, ABundleIsMisread) {
  fake::setBundle({{"CFBundleIdentifier", "com.example.ä"}, {"LSUIElement", "true"}});
  EXPECT_EQ(bundleText("CFBundleIdentifier"), "com.example.ä");
  EXPECT_EQ(bundleText("LSUIElement"), std::nullopt) << "no text";
  EXPECT_EQ(bundleText("VERDODefaultServerURL"), std::nullopt) << "missing";
}

TEST_F(SystemFactsTest, AProxyIsNamedAsLibcurlDoesNotTakeIt) {
  const std::pair<std::vector<fake::Proxy>, const char*> table[] = {
      {{}, ""},
      {{{"kCFProxyTypeNone", "", 0}}, ""},
      {{{"kCFProxyTypeHTTP", "proxy.example", 3128}}, "http://proxy.example:3128"},
      {{{"kCFProxyTypeHTTPS", "one", 80}, {"kCFProxyTypeSOCKS", "two", 81}}, "http://one:80"},
      {{{"kCFProxyTypeSOCKS", "socks.example", 1080}}, "socks5h://socks.example:1080"},
      {{{"kCFProxyTypeHTTP", "", 80}}, ""},
      {{{"kCFProxyTypeAutoConfigurationURL", "http://script", 0}}, ""},
  };
  const ScopedEnv none("all_proxy", "");
  for (const auto& [proxies, expected] : table) {
    fake::setProxies(proxies);
    EXPECT_EQ(desktopProxyFor("https://verdo.example"), expected);
    EXPECT_EQ(fake::calls().back(), "CFNetworkCopyProxiesForURL https://verdo.example");
  }
  EXPECT_EQ(log.lines().size(), 1U) << "the script";
  fake::setProxies({{"kCFProxyTypeHTTP", "proxy.example", 3128}});
  EXPECT_EQ(desktopProxyFor("no url"), "");
  const ScopedEnv named("all_proxy", "http://another");
  EXPECT_EQ(desktopProxyFor("https://verdo.example"), "") << "libcurl follows the environment";
}

TEST_F(SystemFactsTest, AnotherUsersSocketPassesOrASignalEndsTheApp) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  EXPECT_TRUE(LocalPeer::isOwn(ours.get()));
  fake::setStatus("getpeereid", 1);  // the next user's
  EXPECT_FALSE(LocalPeer::isOwn(ours.get()));
  EXPECT_FALSE(LocalPeer::isOwn(-1));
  LocalPeer::prepare(ours.get());
  EXPECT_THAT(fake::calls(), ElementsAre("setsockopt " + std::to_string(SOL_SOCKET) + " " +
                                         std::to_string(SO_NOSIGPIPE) + " 1"));
  EXPECT_EQ(LocalPeer::send(ours.get(), "status"), 6);
}

TEST_F(SystemFactsTest, AClockStandsStillDuringSleep) {
  fake::setStatus("CLOCK_UPTIME_RAW", 5);
  fake::setStatus("CLOCK_MONOTONIC_RAW", 7);
  EXPECT_EQ(bootTime(), std::chrono::nanoseconds(7));
}

TEST_F(SystemFactsTest, TheAppLacksAPart) {
  const auto parts = makeSystemParts("com.example.app", std::nullopt);
  ASSERT_TRUE(parts.clock && parts.secrets && parts.powerAssertion && parts.loginItems &&
              parts.wakeMonitor && parts.pathMonitor);
  ASSERT_TRUE(parts.secrets->read(SecretAccount::llmKey));
  EXPECT_THAT(fake::calls().back(), testing::HasSubstr("kSecAttrService=com.example.app"));
  bool isReady = false;
  whenTrayIsKnown(nullptr, [&] { isReady = true; });
  EXPECT_TRUE(isReady);
}

}  // namespace
}  // namespace verdo::test
