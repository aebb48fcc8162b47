#include "VerdoDriver/Platform/Linux/SecretServiceKeyring.h"

#include "VerdoDriver/Platform/Linux/SecretServiceError.h"
#include "VerdoDriver/Platform/Linux/SecretServiceProvider.h"

#include <algorithm>

#include <fmt/format.h>

namespace verdo {
namespace {

using std::chrono::steady_clock;
using Item = SecretServiceSession::Item;
using TimePoint = SecretServiceSession::TimePoint;

/// What KWallet takes, without a window, to let one more client at an open wallet.
constexpr std::chrono::milliseconds kSilentPromptLimit{1500};

/// Programs answer within this time when they have no need to ask; the user sees no window then.
constexpr std::chrono::milliseconds kSilently{300};

constexpr const char* kUnanswered =
    "The password manager was not answered — answer its window and try again.";

SecretError refusal(const char* text) { return {SecretError::Kind::locked, 0, text}; }

}  // namespace

struct SecretServiceKeyring::Search {
  std::vector<Item> items;  ///< of all unlocked collections, those of the default one first
  std::string collection;   ///< the default one; empty when there is none
  bool isLocked = false;    ///< that one

  /// Of several, should the default collection have been another one once, the last one counts.
  const Item& newest() const { return *std::ranges::max_element(items, {}, &Item::modified); }
  Paths lockedItems() const {
    Paths paths;
    for (const auto& item : items) {
      if (item.isLocked) paths.push_back(item.path);
    }
    return paths;
  }
};

SecretServiceKeyring::SecretServiceKeyring(std::string service, std::chrono::milliseconds limit,
                                           std::string provider, std::function<void()> changed)
    : service_(std::move(service)),
      limit_(limit),
      changed_(std::move(changed)),
      provider_(std::move(provider)) {}

SecretServiceKeyring::~SecretServiceKeyring() {
  const GLibContext::Use use(context_);
  prompt_.reset();
  session_.reset();
  bus_.reset();
}

TimePoint SecretServiceKeyring::soon() const { return steady_clock::now() + limit_; }

SecretServiceSession& SecretServiceKeyring::session(TimePoint deadline) {
  if (bus_ && !bus_->isCurrent()) {
    prompt_.reset();
    session_.reset();
    bus_.reset();
  }
  if (!bus_) bus_ = std::make_unique<SecretServiceBus>(deadline, changed_);
  const auto owner = findSecretService(*bus_, provider_, deadline);
  if (!session_ || session_->owner() != owner) {
    if (!session_ || owner.empty()) prompt_.reset();
    session_.reset();
    if (owner.empty()) {
      throw SecretServiceMissing(
          provider_.empty() ? "No keyring is running."
                            : fmt::format("The secrets are kept in {}, which is not running — "
                                          "start it and try again.",
                                          provider_));
    }
    session_ = std::make_unique<SecretServiceSession>(*bus_, owner, deadline);
  }
  return *session_;
}

bool SecretServiceKeyring::hasDefaultCollection() {
  const auto deadline = soon();
  return !session(deadline).defaultCollection(deadline).empty();
}

SecretServiceKeyring::Search SecretServiceKeyring::search(SecretAccount account,
                                                          TimePoint deadline) {
  auto& keyring = session(deadline);
  const SecretServiceSession::Attributes attributes = {{"service", service_},
                                                       {"account", nameOf(account)}};
  Search found;
  found.collection = keyring.defaultCollection(deadline);
  auto collections = keyring.collections(deadline);
  std::erase(collections, found.collection);
  if (!found.collection.empty()) collections.insert(collections.begin(), found.collection);
  for (const auto& collection : collections) {
    const bool isDefault = collection == found.collection;
    if (keyring.isLocked(collection, deadline) &&
        !(isDefault && unlockSilently(collection, deadline))) {
      found.isLocked |= isDefault;
      continue;
    }
    const auto items = keyring.search(collection, attributes, deadline);
    found.items.insert(found.items.end(), items.begin(), items.end());
  }
  return found;
}

bool SecretServiceKeyring::unlockSilently(const std::string& collection, TimePoint deadline) try {
  auto& keyring = *session_;
  if (!isKWallet(keyring.program()) ||
      !isWalletOpen(*bus_, keyring.owner(), keyring.program(),
                    keyring.labelOf(collection, deadline), deadline)) {
    return false;
  }
  if (isAsking()) return false;
  const auto path = keyring.unlock({collection}, deadline);
  if (!path.empty()) {
    prompt_ = std::make_unique<SecretServicePrompt>(*bus_, keyring.owner(), path);
    const GObjectPtr<GCancellable> never(g_cancellable_new());
    prompt_->wait(std::min(deadline, steady_clock::now() + kSilentPromptLimit), never.get());
  }
  return !keyring.isLocked(collection, deadline);
} catch (const SecretError& error) {
  // It was closed meanwhile, say: that it is locked is then the truth.
  if (error.kind == SecretError::Kind::unavailable) throw;
  return false;
}

/// That nothing was found means that there is nothing. Throws when it need not.
void SecretServiceKeyring::requireAbsent(const Search& found) const {
  if (found.isLocked) throw secretLockedError();
  if (found.collection.empty()) {
    throw SecretError{SecretError::Kind::unavailable, 0,
                      "No keyring is open — open it in the password manager and try again."};
  }
  const auto& program = session_->program();
  if (!provider_.empty() && !program.empty() && provider_ != program) {
    throw SecretError{SecretError::Kind::unavailable, 0,
                      fmt::format("The secrets are kept in {}, but {} is running in its place.",
                                  provider_, program)};
  }
}

std::optional<std::string> SecretServiceKeyring::read(SecretAccount account) {
  const auto deadline = soon();
  const auto found = search(account, deadline);
  if (found.items.empty()) {
    requireAbsent(found);
    return std::nullopt;
  }
  const auto& item = found.newest();
  if (item.isLocked) throw secretLockedError();
  auto secret = session_->secretOf(item.path, deadline);
  provider_ = session_->program();
  return secret;
}

void SecretServiceKeyring::write(const std::string& value, SecretAccount account,
                                 const SecretPrompting& prompting) {
  settle(prompting);
  // An item that is there is unlocked first: a question that is answered too late then allows its
  // use, and does not replace it.
  const auto before = searchUnlocked(account, prompting);
  if (before.collection.empty()) {
    if (!provider_.empty()) requireAbsent(before);
    throw SecretError{SecretError::Kind::failed, 0,
                      "There is no default keyring — create one in the system's password settings "
                      "and try again."};
  }
  auto& keyring = *session_;
  const std::string name = nameOf(account);
  const auto prompt = keyring.create(before.collection, "Verdo Driver " + name,
                                     {{"service", service_}, {"account", name}}, value, soon());
  if (!prompt.empty()) run(prompt, prompting);
  // Some programs report a refused change as done.
  const auto found = searchUnlocked(account, prompting);
  if (found.items.empty() || keyring.secretOf(found.newest().path, soon()) != value) {
    throw SecretError{SecretError::Kind::failed, 0,
                      "The password manager did not save the secret — try again and allow it."};
  }
  provider_ = keyring.program();
}

bool SecretServiceKeyring::remove(SecretAccount account, const SecretPrompting& prompting) {
  settle(prompting);
  const auto found = searchUnlocked(account, prompting);
  if (found.items.empty()) {
    requireAbsent(found);
    return false;
  }
  for (const auto& item : found.items) {
    const auto prompt = session_->remove(item.path, soon());
    if (!prompt.empty()) run(prompt, prompting);
  }
  if (!search(account, soon()).items.empty()) {
    throw SecretError{SecretError::Kind::failed, 0,
                      "The password manager did not remove the secret — try again and allow it."};
  }
  return true;
}

void SecretServiceKeyring::unlock(const SecretPrompting& prompting) {
  settle(prompting);
  Paths locked;
  for (const auto account : kSecretAccounts) {
    const auto found = search(account, soon());
    if (found.items.empty() && !found.isLocked) requireAbsent(found);
    if (found.isLocked) {
      unlockPaths({found.collection}, prompting);
      return unlock(prompting);  // the items that have come to light may be locked, too
    }
    const auto items = found.lockedItems();
    locked.insert(locked.end(), items.begin(), items.end());
  }
  if (!locked.empty()) unlockPaths(locked, prompting);
}

SecretServiceKeyring::Search SecretServiceKeyring::searchUnlocked(
    SecretAccount account, const SecretPrompting& prompting) {
  auto found = search(account, soon());
  if (found.isLocked) {
    unlockPaths({found.collection}, prompting);
    found = search(account, soon());
  }
  if (const auto locked = found.lockedItems(); !locked.empty()) unlockPaths(locked, prompting);
  return found;
}

void SecretServiceKeyring::unlockPaths(const Paths& paths, const SecretPrompting& prompting) {
  const auto prompt = session_->unlock(paths, soon());
  if (!prompt.empty()) run(prompt, prompting);
}

/// True when a window has not been answered yet.
bool SecretServiceKeyring::isAsking() const {
  return prompt_ && prompt_->answer() == SecretServicePrompt::Answer::none;
}

/// Waits for the window that an earlier action has left, if there is one.
void SecretServiceKeyring::settle(const SecretPrompting& prompting) {
  session(soon());  // notices that the program, and its window, is gone
  if (isAsking()) awaitPrompt(prompting);
}

void SecretServiceKeyring::run(const std::string& prompt, const SecretPrompting& prompting) {
  if (g_cancellable_is_cancelled(prompting.cancellable)) throw refusal(kUnanswered);
  prompt_ = std::make_unique<SecretServicePrompt>(*bus_, session_->owner(), prompt);
  awaitPrompt(prompting);
}

void SecretServiceKeyring::awaitPrompt(const SecretPrompting& prompting) {
  using Answer = SecretServicePrompt::Answer;
  auto answer = prompt_->wait(std::min(prompting.deadline, steady_clock::now() + kSilently),
                              prompting.cancellable);
  if (answer == Answer::none) {
    prompting.announce(SecretEvent::promptOpened);
    answer = prompt_->wait(prompting.deadline, prompting.cancellable);
    prompting.announce(SecretEvent::promptClosed);
  }
  switch (answer) {
    case Answer::allowed:
      return;
    case Answer::refused:
      throw refusal("The password manager was told not to allow it.");
    case Answer::serviceGone:
      throw SecretError{SecretError::Kind::unavailable, 0, "The password manager has ended."};
    case Answer::none:
      break;
  }
  throw refusal(kUnanswered);  // the window stays, and the next action waits for it
}

}  // namespace verdo
