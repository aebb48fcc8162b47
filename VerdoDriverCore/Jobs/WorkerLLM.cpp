#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "VerdoDriverCore/Jobs/Worker.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/Network/Errors.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::int32_t kCallFailed = 1;
/// What a process ended by SIGTERM reports: the service treats both kinds of job alike.
constexpr std::int32_t kEndedByDriver = 143;

}  // namespace

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
  std::shared_ptr<ChatClient> client;
  try {
    client = std::make_shared<ChatClient>(
        host_->llmKey(), host_->llmBase(),
        [this](const std::string& text) { host_->log().info(prefixed(text)); },
        host_->providerSession(), host_->api().scrub());
  } catch (const PyError& error) {
    const std::string text = fmt::format("bad LLM base URL: {}", error.what());
    host_->log().error(prefixed(text));
    return failCall("config", text, "could not report the bad LLM base URL");
  }
  const auto prompt = pyStr(payload.find("prompt")).value_or("");
  host_->log().info(fmt::format("{} ({} bytes prompt)", start, prompt.size()));
  runCall(client, payload);
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

/// Runs the call, reporting meanwhile, and posts what came of it.
void Worker::runCall(const std::shared_ptr<ChatClient>& client, const JV& payload) {
  bool cancelledBefore = false;
  {
    MutexLock lock(stateLock_);
    llmClient_ = client;
    cancelledBefore = cancelled_;
  }
  if (cancelledBefore) client->cancel();
  try {
    try {
      const HttpMeanwhile report{host_->timings().reportCycle, [this] { heartbeat(); }};
      postReply(client->complete(payload, report));
      exitCode_ = 0;
    } catch (const LLMCallError& error) {
      LineBatch batch;
      batch.add(LLMLines::end(error.category(), error.what(), error.isRetryable()));
      postLines(std::move(batch));
      exitCode_ = kCallFailed;
    } catch (const LLMCancelled&) {
      // A job that the service cancelled has no exit code: nothing of it failed.
      if (!cancelledByServer_) exitCode_ = kEndedByDriver;
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

/// Tells the service that the call goes on, and hears whether it should.
void Worker::heartbeat() {
  const LinesReply reply = postLines(LineBatch());
  if (reply.cancel && !isCancelled()) {
    host_->log().warn(prefixed("cancel requested — closing the provider call"));
    cancelledByServer_ = true;
    kill();
  }
  if (host_->stopping().isSet() && !isCancelled()) kill();
}

/// Posts the provider's text in chunk lines, and the line that ends it.
void Worker::postReply(const ChatClient::Completion& completion) {
  LineBatch batch;
  LLMLines::chunk(completion.text, [&](std::string_view line) {
    batch.add(line);
    if (batch.bytes() > PendingLines::kBatchBytes / 2) {
      postLines(std::exchange(batch, LineBatch()));
    }
  });
  batch.add(LLMLines::end(completion));
  postLines(std::move(batch));
}

}  // namespace verdo
