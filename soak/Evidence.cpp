#include "soak/Evidence.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace verdo::soak {

using namespace std::chrono_literals;

namespace {

/// Between the service's last byte and the driver's reading of it.
constexpr auto kOnItsWay = 3s;
/// The longest that a trickled reply takes.
constexpr auto kTrickling = 15s;

/// The text behind `key` up to the next sign of `ends`; empty when there is none.
std::string behind(std::string_view text, std::string_view key, std::string_view ends) {
  const auto at = text.find(key);
  if (at == text.npos) return "";
  text.remove_prefix(at + key.size());
  return std::string(text.substr(0, text.find_first_of(ends)));
}

}  // namespace

void Evidence::addFault(std::uint64_t id, const local::Fault& fault) {
  using enum local::Delivery;
  if (fault.reply || (fault.delivery != whole && fault.delivery != trickled)) losing_.insert(id);
  if (fault.delivery == trickled || fault.delay.count() > 0) slow_.insert(id);
}

void Evidence::readRequests(const local::RequestLog& log) {
  records_ = log.list();
  for (const Record& record : records_) {
    bySequence_.emplace(record.sequence, &record);
    if (record.fault) ++faulted_;
    if (record.jobId) {
      posts_[*record.jobId].push_back(&record);
    } else if (record.endpoint == "files") {
      downloads_[std::atoll(behind(record.target, "/files/", "/").c_str())].push_back(&record);
    } else if (record.endpoint == "chat") {
      calls_[behind(record.body, "\"model\": \"", "\"")].push_back(&record);
    }
  }
}

bool Evidence::isDisturbed(Clock::time_point from, Clock::time_point to) const {
  return std::ranges::any_of(disturbances_, [&](const Disturbance& disturbance) {
    return disturbance.begin <= to && disturbance.end >= from;
  });
}

/// The driver may not have had the reply that the service meant.
bool Evidence::isSpoilt(const Record& record) const {
  if (!record.replied || record.hungUp) return true;
  if (record.fault && losing_.contains(*record.fault)) return true;
  const bool slow = record.fault && slow_.contains(*record.fault);
  return isDisturbed(record.arrived, *record.replied + (slow ? kTrickling : kOnItsWay));
}

bool Evidence::mayHaveLostReply(std::uint64_t request) const {
  const auto found = bySequence_.find(request);
  return found == bySequence_.end() || isSpoilt(*found->second);
}

bool Evidence::excusesSilence(std::int64_t job, Clock::time_point from,
                              Clock::time_point to) const {
  // A short one does not outlast a lease, but what the driver tries meanwhile may fail.
  const bool isHeldUp = std::ranges::any_of(disturbances_, [&](const Disturbance& disturbance) {
    return std::min(disturbance.aftermath, to) - std::max(disturbance.begin, from) >=
           (to - from) / 2;
  });
  const auto found = posts_.find(job);
  return isHeldUp ||
         (found != posts_.end() && std::ranges::any_of(found->second, [&](const Record* record) {
            return record->arrived > from && record->arrived <= to && isSpoilt(*record);
          }));
}

bool Evidence::excusesStaging(std::int64_t job) const {
  const auto found = downloads_.find(job);
  // One that never arrived was cut off on its way.
  if (found == downloads_.end()) return !disturbances_.empty();
  return isSpoilt(*found->second.back());
}

bool Evidence::excusesCall(const std::string& model) const {
  const auto found = calls_.find(model);
  if (found == calls_.end()) return !disturbances_.empty();
  return isSpoilt(*found->second.back());
}

}  // namespace verdo::soak
