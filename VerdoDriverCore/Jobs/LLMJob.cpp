#include "VerdoDriverCore/Jobs/LLMJob.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "VerdoDriverCore/Jobs/PendingLines.h"
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

LLMJob::LLMJob(std::string payload, JobReporter& reporter)
    : reporter_(reporter), payload_(std::move(payload)) {}

JobOutcome LLMJob::run() {
  JobHost& host = *reporter_.host();
  JV payload;
  try {
    payload = LLMLines::parsePayload(payload_);
    std::string().swap(payload_);  // an assignment would keep its memory
  } catch (const PyError& error) {
    const std::string text = "bad llm payload: " + pyDescribe(error);
    host.log().error(reporter_.prefixed(text));
    return {kNotRun, text};
  }
  const std::string start = fmt::format("job {} [llm] role={} model={}", reporter_.job().id,
                                        pyStrIfTruthy(payload.find("role")).value_or("?"),
                                        pyStr(payload.find("model")).value_or(""));
  if (host.llmKey().empty()) {
    host.log().warn(fmt::format("{}: {}", start, DriverConstants::noLLMKeyMessage));
    return refuse(DriverConstants::noLLMKeyMessage, "could not report the missing key");
  }
  std::shared_ptr<ChatClient> client;
  try {
    client = std::make_shared<ChatClient>(
        host.llmKey(), host.llmBase(),
        [this](const std::string& text) { reporter_.host()->log().info(reporter_.prefixed(text)); },
        host.providerSession(), host.api().scrub());
  } catch (const PyError& error) {
    const std::string text = fmt::format("bad LLM base URL: {}", error.what());
    host.log().error(reporter_.prefixed(text));
    return refuse(text, "could not report the bad LLM base URL");
  }
  {
    MutexLock lock(lock_);
    client_ = client;
    if (ending_) client->cancel();
  }
  const JV* prompt = payload.find("prompt");
  const std::size_t promptBytes =
      prompt && prompt->asString() ? prompt->asString()->size() : pyStr(prompt).value_or("").size();
  host.log().info(fmt::format("{} ({} bytes prompt)", start, promptBytes));
  return call(*client, std::move(payload));
}

/// Ends a job before its call with one failure line.
JobOutcome LLMJob::refuse(const std::string& text, const char* complaint) {
  try {
    postLine(LLMLines::end(LLMCallError::Category::config, text, false));
  } catch (const ServerError& error) {
    if (error.kind() == ServerError::Kind::auth) throw;
    reporter_.host()->log().error(
        reporter_.prefixed(fmt::format("{}: {}", complaint, error.what())));
  }
  return {kCallFailed, std::nullopt};
}

/// Makes the call, reporting meanwhile, and posts what came of it.
JobOutcome LLMJob::call(ChatClient& client, JV payload) {
  const HttpHeartbeat heartbeat{reporter_.host()->timings().reportCycle,
                                [this] { reporter_.post(LineBatch()); }};
  try {
    postReply(client.complete(std::move(payload), heartbeat));
    return {0, std::nullopt};
  } catch (const LLMCallError& error) {
    postLine(LLMLines::end(error.category(), error.what(), error.isRetryable()));
    return {kCallFailed, std::nullopt};
  } catch (const LLMCancelled&) {
    // A job that the service cancelled has no exit code: nothing of it failed.
    if (reporter_.isCancelledByService()) return {};
    return {kEndedByDriver, std::nullopt};
  }
}

/// Posts the provider's text in chunk lines, and the line that ends it.
void LLMJob::postReply(const ChatClient::Completion& completion) {
  LineBatch batch;
  LLMLines::chunk(completion.text, [&](std::string_view line) {
    batch.add(line);
    if (batch.bytes() > PendingLines::kBatchBytes / 2) {
      reporter_.post(std::exchange(batch, LineBatch()));
    }
  });
  batch.add(LLMLines::end(completion));
  reporter_.post(std::move(batch));
}

void LLMJob::postLine(const std::string& line) {
  LineBatch batch;
  batch.add(line);
  reporter_.post(std::move(batch));
}

std::int32_t LLMJob::abandon() { return kEndedByDriver; }

void LLMJob::terminate() {
  MutexLock lock(lock_);
  ending_ = true;
  if (client_) client_->cancel();
}

}  // namespace verdo
