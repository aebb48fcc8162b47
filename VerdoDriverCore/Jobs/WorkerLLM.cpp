#include <fmt/format.h>

#include <thread>

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "VerdoDriverCore/Jobs/Worker.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/Process/ThreadName.h"
#include "VerdoDriverCore/Values/PyValue.h"

namespace verdo {
namespace {

constexpr std::int32_t kBadPayload = 127;
constexpr std::int32_t kCallFailed = 1;
/// What a process ended by SIGTERM reports: the service treats both kinds of job alike.
constexpr std::int32_t kEndedByDriver = 143;

}  // namespace

/// One provider call on a thread of its own, and how it ended.
struct Worker::LLMCall {
  std::shared_ptr<ChatClient> client;
  Event done;
  // Written by the call's thread before `done`, read after it.
  std::optional<ChatClient::Completion> completion;
  std::optional<LLMCallError> failure;  ///< neither: the call was cancelled
  std::thread thread;

  LLMCall() = default;
  LLMCall(const LLMCall&) = delete;
  LLMCall& operator=(const LLMCall&) = delete;
  ~LLMCall() {
    client->cancel();
    if (thread.joinable()) thread.join();
  }

  void start(const JV& payload, const std::string& name) {
    thread = std::thread([this, &payload, name] {
      setThreadName(name);
      try {
        completion = client->complete(payload);
      } catch (const LLMCancelled&) {
        // Whoever cancelled knows what to report.
      } catch (const LLMCallError& error) {
        failure = error;
      } catch (const std::exception& error) {
        failure.emplace("transient", pyDescribe(error), true);
      }
      done.set();
    });
  }
};

void Worker::runLLM() {
  JV payload;
  try {
    payload = LLMLines::parsePayload(job_.payload);
  } catch (const PyError& error) {
    const std::string text = "bad llm payload: " + pyDescribe(error);
    host_->log().error(prefixed(text));
    return failUnrun(text);
  }
  const std::string role = pyStrIfTruthy(payload.find("role")).value_or("?");
  const std::string model = pyStr(payload.find("model")).value_or("");
  const std::string start = fmt::format("job {} [llm] role={} model={}", job_.id, role, model);
  if (host_->llmKey().empty()) {
    host_->log().warn(fmt::format("{}: {}", start, DriverConstants::noLLMKeyMessage));
    return failCall("config", DriverConstants::noLLMKeyMessage, "could not report the missing key");
  }
  LLMCall call;
  try {
    call.client = std::make_shared<ChatClient>(
        host_->llmKey(), host_->llmBase(),
        [this](const std::string& text) { host_->log().info(prefixed(text)); },
        host_->providerSession());
  } catch (const PyError& error) {
    const std::string text = fmt::format("bad LLM base URL: {}", error.what());
    host_->log().error(prefixed(text));
    return failCall("config", text, "could not report the bad LLM base URL");
  }
  const auto prompt = pyStr(payload.find("prompt")).value_or("");
  host_->log().info(fmt::format("{} ({} bytes prompt)", start, prompt.size()));
  runCall(call, payload);
  completeAndReport();
}

/// Ends a job before its call with one failure line.
void Worker::failCall(const char* category, const std::string& message, const char* complaint) {
  exitCode_ = kCallFailed;
  try {
    LineBatch batch;
    batch.add(LLMLines::end(category, message, false));
    postLines(std::move(batch));
  } catch (const ServerError& error) {
    if (error.kind() == ServerError::Kind::auth) throw;
    host_->log().error(prefixed(fmt::format("{}: {}", complaint, error.what())));
  }
  completeAndReport();
}

/// Runs the call under the reporting cycle and posts what came of it.
void Worker::runCall(LLMCall& call, const JV& payload) {
  bool cancelledBefore = false;
  {
    MutexLock lock(stateLock_);
    llmClient_ = call.client;
    cancelledBefore = cancelled_;
  }
  if (cancelledBefore) call.client->cancel();
  bool cancelledByServer = false;
  try {
    call.start(payload, fmt::format("llm-{}", job_.id));
    while (!call.done.waitFor(host_->timings().reportCycle)) {
      const LinesReply reply = postLines(LineBatch());
      if (reply.cancel && !isCancelled()) {
        host_->log().warn(prefixed("cancel requested — closing the provider call"));
        cancelledByServer = true;
        kill();
      }
      if (host_->stopping().isSet() && !isCancelled()) kill();
    }
    if (call.completion || call.failure) {
      postResult(call);
    } else if (!cancelledByServer) {
      exitCode_ = kEndedByDriver;
    }
  } catch (const ServerError& error) {
    kill();
    if (error.kind() == ServerError::Kind::auth) {
      err_ = "driver token revoked mid-job";
      throw;
    }
    host_->log().error(
        prefixed(fmt::format("lost the server, dropping the provider call: {}", error.what())));
    exitCode_ = kEndedByDriver;
    err_ = "driver lost the server mid-job";
  }
}

/// Posts the reply in chunk lines, or the failure, and the line that ends it.
void Worker::postResult(const LLMCall& call) {
  LineBatch batch;
  if (call.completion) {
    LLMLines::chunk(call.completion->text, [&](std::string_view line) {
      batch.add(line);
      if (batch.bytes() < PendingLines::kBatchBytes / 2) return;
      postLines(std::exchange(batch, LineBatch()));
    });
    batch.add(LLMLines::end(*call.completion));
  } else {
    const LLMCallError& failure = *call.failure;
    batch.add(LLMLines::end(failure.category(), failure.what(), failure.isRetryable()));
  }
  postLines(std::move(batch));
  exitCode_ = call.completion ? 0 : kCallFailed;
}

}  // namespace verdo
