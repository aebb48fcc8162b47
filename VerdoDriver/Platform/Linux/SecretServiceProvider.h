#pragma once

#include "VerdoDriver/Platform/Linux/SecretServiceBus.h"

#include <string>

namespace verdo {

/// The unique name of the program that keeps secrets, `provider` (empty: none) being the one that
/// has kept them so far; empty when there is none. Throws as SecretServiceBus does.
///
/// A program that does not run is started only when it is sure to be the user's own: the one that
/// has kept the secrets so far or, while none has, the desktop's where the user has a wallet of its
/// kind. Whoever is started first keeps the name, and would shut the user's own out.
std::string findSecretService(SecretServiceBus& bus, const std::string& provider,
                              SecretServiceBus::TimePoint deadline);

/// True for KWallet, which has each client unlock an open wallet before it reads, and shows no
/// window then.
bool isKWallet(const std::string& program);
/// True when this wallet is open in the KWallet that is `owner` on the bus.
bool isWalletOpen(SecretServiceBus& bus, const std::string& owner, const std::string& program,
                  const std::string& wallet, SecretServiceBus::TimePoint deadline);

}  // namespace verdo
