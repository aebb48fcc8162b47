#pragma once

// What tests ask and tell the stand-in of the macOS frameworks. The headers beside it declare what
// the adapters use of each framework, under the names and with the values that Apple's public
// documentation gives; nothing here has ever met a real one.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace verdo::fake {

/// Forgets calls, statuses and what is stored.
void reset();

/// Every call so far, in order, as text.
std::vector<std::string> calls();
void record(std::string call);

/// Objects, blocks and queues that somebody still owns, and releases of what was gone already.
int liveObjects();
int overReleases();
void countObject(int change);
void countOverRelease();
/// What is gone stays in memory, so that one release too many is counted and harms nothing. This
/// keeps checkers of addresses from taking it for lost.
void keepForEver(const void* memory);

/// What functions of this name return from now on, in place of success.
void setStatus(const std::string& function, std::int32_t status);
std::int32_t statusOf(const std::string& function);

/// The keychain, as (service, account) → bytes.
using KeychainItems = std::map<std::pair<std::string, std::string>, std::string>;
KeychainItems& keychain();
/// A text that SecCopyErrorMessageString gives; "" makes it give none.
void setErrorMessage(const std::string& message);
/// Whether it may ask the user now.
bool mayKeychainAsk();
/// What reads give is no data.
void setReadsGiveText(bool doThey);

/// What the main bundle's Info.plist holds; "true" stands for what is no text.
void setBundle(std::map<std::string, std::string> info);

/// One proxy that the system names for every URL: its kCFProxyType…, host and port.
struct Proxy {
  std::string type;
  std::string host;
  int port = 0;
};
void setProxies(std::vector<Proxy> proxies);

/// A path update as the system sends it, on a thread of its own. To nobody once cancelled.
void reportPath(int status);

/// What the kernel lists.
struct Process {
  int pid = 0;
  int group = 0;
  bool isZombie = false;
  long startSeconds = 0;
  int startMicroseconds = 0;
};
void setProcesses(std::vector<Process> processes);

/// The workspace has woken up.
void wakeUp();
/// Who would be told.
int observers();

/// SMAppService's.
void setLoginItemStatus(long status);
void setLoginItemError(const std::string& description);

/// Symbols that the system does not have.
void setSymbolsMissing(bool areThey);

/// An NSView in a window.
void* makeView();
void releaseView(void* view);

}  // namespace verdo::fake
