#include "VerdoDriver/Platform/Linux/SecretServiceProvider.h"

#include "VerdoDriverCore/System/Sync.h"

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <vector>

namespace verdo {
namespace {

/// How often it is looked whether a program that was started has taken the name.
constexpr std::chrono::milliseconds kNameInterval{20};

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

/// True when the user has, or would be expected to have, a wallet.
bool usesKWallet() {
  if (environment("XDG_CURRENT_DESKTOP").find("KDE") != std::string::npos) return true;
  const auto data = environment("XDG_DATA_HOME");
  const std::filesystem::path wallets =
      (data.empty() ? environment("HOME") + "/.local/share" : data) + "/kwalletd";
  std::error_code error;
  return std::filesystem::directory_iterator(wallets, error) !=
         std::filesystem::directory_iterator();
}

/// The names of their own by which the user's programs can be started.
std::vector<std::string> startableNames(const std::string& provider) {
  if (provider == "gnome-keyring-daemon") return {"org.gnome.keyring"};
  if (isKWallet(provider)) return {"org.kde." + provider};
  if (provider.empty() && usesKWallet()) return {"org.kde.kwalletd6", "org.kde.kwalletd5"};
  return {};
}

}  // namespace

std::string findSecretService(SecretServiceBus& bus, const std::string& provider,
                              SecretServiceBus::TimePoint deadline) {
  auto owner = bus.ownerOf(kSecretServiceName, deadline);
  if (!owner.empty()) return owner;
  for (const auto& name : startableNames(provider)) {
    if (!bus.startService(name, deadline)) continue;
    const Event never;
    do {
      owner = bus.ownerOf(kSecretServiceName, deadline);  // throws once the time is over
    } while (owner.empty() && !never.waitFor(kNameInterval));
    return owner;
  }
  return "";
}

bool isKWallet(const std::string& program) {
  return std::string_view(program).starts_with("kwalletd");
}

bool isWalletOpen(SecretServiceBus& bus, const std::string& owner, const std::string& program,
                  const std::string& wallet, SecretServiceBus::TimePoint deadline) {
  const std::string path = "/modules/" + program;
  const auto reply = bus.call({owner, path.c_str(), "org.kde.KWallet", "isOpen"},
                              g_variant_new("(s)", wallet.c_str()), "(b)", deadline);
  gboolean open = FALSE;
  g_variant_get(reply.get(), "(b)", &open);
  return open;
}

}  // namespace verdo
