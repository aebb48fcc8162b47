#include "LocalService/PairingStore.h"

#include "LocalService/Deadline.h"
#include "LocalService/Random.h"
#include "LocalService/Secret.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace verdo::local {
namespace {

using Clock = std::chrono::steady_clock;

/// 32 signs, none of which is taken for another when it is read out.
constexpr std::string_view kUserCodeSigns = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
constexpr std::size_t kUserCodeSize = 8;

void check(std::chrono::seconds value, const char* name) {
  if (value.count() < 0 || value > std::chrono::hours(24)) {
    throw std::invalid_argument(std::string("a pairing's ") + name + " must be from 0 to a day");
  }
}

std::string userCode() {
  std::string code;
  for (const char byte : randomBytes(kUserCodeSize)) {
    if (code.size() == kUserCodeSize / 2) code += '-';
    code += kUserCodeSigns[static_cast<unsigned char>(byte) % kUserCodeSigns.size()];
  }
  return code;
}

/// The entry whose pairing has this code; null: none has.
template <typename Entries>
auto* find(Entries& entries, std::string PairingSnapshot::* code, std::string_view value) {
  const auto found = std::ranges::find_if(
      entries, [&](const auto& entry) { return sameSecret(value, entry.pairing.*code); });
  return found == entries.end() ? nullptr : &*found;
}

}  // namespace

const char* toText(PairingState state) {
  switch (state) {
    case PairingState::pending:
      return "pending";
    case PairingState::approved:
      return "approved";
    case PairingState::denied:
      return "denied";
    case PairingState::expired:
      break;
  }
  return "expired";
}

void PairingStore::setRules(PairingRules rules) {
  check(rules.expiresIn, "lifetime");
  check(rules.interval, "polling interval");
  const MutexLock lock(mutex_);
  rules_ = std::move(rules);
}

std::string PairingStore::unusedUserCode() const {
  auto code = userCode();
  while (find(entries_, &PairingSnapshot::userCode, code) != nullptr) code = userCode();
  return code;
}

std::pair<PairingSnapshot, PairingRules> PairingStore::begin(std::string host) {
  Entry entry;
  entry.pairing.code = randomSecret("vdp_");
  entry.pairing.host = std::move(host);
  entry.nonce = randomSecret("");
  const MutexLock lock(mutex_);
  entry.pairing.userCode = unusedUserCode();
  entry.pairing.verifyPath = std::string(kPairingPages) + entry.pairing.userCode;
  entry.username = rules_.username;
  entry.expires = Clock::now() + rules_.expiresIn;
  entries_.push_back(std::move(entry));
  changed_.notifyAll();
  return {snapshot(entries_.back()), rules_};
}

PairingSnapshot PairingStore::snapshot(const Entry& entry) {
  auto pairing = entry.pairing;
  if (pairing.state == PairingState::pending && Clock::now() >= entry.expires) {
    pairing.state = PairingState::expired;
  }
  return pairing;
}

std::optional<PairingStore::Poll> PairingStore::poll(std::string_view code) {
  const MutexLock lock(mutex_);
  auto* entry = find(entries_, &PairingSnapshot::code, code);
  if (entry == nullptr) return std::nullopt;
  auto state = snapshot(*entry).state;
  if (state == PairingState::approved && std::exchange(entry->handedOut, true)) {
    state = PairingState::expired;
  }
  return Poll{.state = state, .username = entry->username};
}

void PairingStore::putBack(std::string_view code) {
  const MutexLock lock(mutex_);
  if (auto* entry = find(entries_, &PairingSnapshot::code, code)) entry->handedOut = false;
}

std::optional<PairingStore::Request> PairingStore::request(std::string_view userCode) const {
  const MutexLock lock(mutex_);
  const auto* entry = find(entries_, &PairingSnapshot::userCode, userCode);
  if (entry == nullptr) return std::nullopt;
  return Request{.pairing = snapshot(*entry), .username = entry->username, .nonce = entry->nonce};
}

PairingStore::Decision PairingStore::decide(std::string_view userCode, std::string_view nonce,
                                            bool approve) {
  const MutexLock lock(mutex_);
  auto* entry = find(entries_, &PairingSnapshot::userCode, userCode);
  if (entry == nullptr) return Decision::unknown;
  if (!sameSecret(nonce, entry->nonce)) return Decision::wrongNonce;
  if (snapshot(*entry).state != PairingState::pending) return Decision::tooLate;
  entry->pairing.state = approve ? PairingState::approved : PairingState::denied;
  return Decision::made;
}

bool PairingStore::end(std::string_view userCode, PairingState state) {
  const MutexLock lock(mutex_);
  auto* entry = find(entries_, &PairingSnapshot::userCode, userCode);
  if (entry == nullptr || snapshot(*entry).state != PairingState::pending) return false;
  entry->pairing.state = state;
  return true;
}

std::vector<PairingSnapshot> PairingStore::list() const {
  std::vector<PairingSnapshot> all;
  const MutexLock lock(mutex_);
  all.reserve(entries_.size());
  for (const auto& entry : entries_) all.push_back(snapshot(entry));
  return all;
}

std::optional<PairingSnapshot> PairingStore::waitFor(std::size_t n,
                                                     std::chrono::milliseconds timeout) const {
  const auto deadline = deadlineAfter(timeout);
  const MutexLock lock(mutex_);
  while (!interrupted_ && entries_.size() < n) {
    if (!changed_.waitUntil(mutex_, deadline)) break;
  }
  if (n == 0 || n > entries_.size()) return std::nullopt;
  return snapshot(entries_[n - 1]);
}

void PairingStore::clear() {
  const MutexLock lock(mutex_);
  entries_.clear();
  rules_ = {};
}

void PairingStore::interrupt() {
  const MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
}

void PairingStore::resume() {
  const MutexLock lock(mutex_);
  interrupted_ = false;
}

}  // namespace verdo::local
