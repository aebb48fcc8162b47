#include "VerdoDriver/Model/Onboarding.h"

#include "VerdoDriver/Model/MainThread.h"

#include <QPointer>
#include <utility>

#include <fmt/format.h>

namespace verdo {

void Onboarding::start(const std::string& serverURL, bool allowInsecure, const std::string& llmKey,
                       Completion completion) {
  MainThread::require("Onboarding::start");
  cancel();
  pairing_.start(
      serverURL, allowInsecure,
      [self = QPointer(this), serverURL, allowInsecure, llmKey, completion = std::move(completion)](
          const std::string& token, const std::string& username) {
        if (!self) return;
        self->approval_ = {
            {.serverURL = serverURL, .token = token, .llmKey = {}, .allowInsecure = allowInsecure},
            username};
        self->connect(llmKey, completion);
      });
}

void Onboarding::retry(const std::string& llmKey, const Completion& completion) {
  MainThread::require("Onboarding::retry");
  if (!approval_) return;
  pairing_.connectAgain(approval_->username);
  connect(llmKey, completion);
}

void Onboarding::cancel() {
  MainThread::require("Onboarding::cancel");
  approval_.reset();
  ++attempt_;
  if (std::exchange(isConnecting_, false)) connecting_.cancel();
  pairing_.cancel();
}

void Onboarding::connect(const std::string& llmKey, const Completion& completion) {
  ConnectDraft draft = approval_->draft;
  draft.llmKey = llmKey;
  isConnecting_ = true;
  connecting_.connect(draft, [self = QPointer(this), attempt = ++attempt_,
                              completion](const ConnectResult& result) {
    if (self) self->connected(attempt, result);
    if (completion) completion(result);
  });
}

void Onboarding::connected(std::uint64_t attempt, const ConnectResult& result) {
  if (attempt != attempt_) return;  // cancelled
  isConnecting_ = false;
  const auto kind = result.reason.kind();
  if (result.saved || kind == ExitReason::Kind::tokenRevoked) approval_.reset();
  if (result.saved || kind == ExitReason::Kind::stopped) return pairing_.endConnecting({});
  pairing_.endConnecting(fmt::format("{} — {}", result.text.title, result.text.detail));
}

}  // namespace verdo
