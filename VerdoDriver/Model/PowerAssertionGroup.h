#pragma once

#include "VerdoDriver/Model/PowerAssertion.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace verdo {

/// Several assertions as one, for systems on which more than one program may put the computer to
/// sleep. Each is held for itself: one that is refused takes nothing from the others.
class PowerAssertionGroup : public PowerAssertion {
 public:
  explicit PowerAssertionGroup(std::vector<std::shared_ptr<PowerAssertion>> members)
      : members_(std::move(members)) {}

  void hold(const std::string& reason) override {
    for (const auto& member : members_) member->hold(reason);
  }
  void release() override {
    for (const auto& member : members_) member->release();
  }
  /// True while any of them is.
  bool isHeld() const override {
    return std::any_of(members_.begin(), members_.end(),
                       [](const auto& member) { return member->isHeld(); });
  }

 private:
  const std::vector<std::shared_ptr<PowerAssertion>> members_;
};

}  // namespace verdo
