#pragma once

#include "VerdoDriverCore/Jobs/JobBody.h"
#include "VerdoDriverCore/Network/ChatClient.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/JV.h"

#include <memory>
#include <string>

namespace verdo {

/// Makes one call to the LLM provider with the user's key and posts the reply in lines.
class LLMJob : public JobBody {
 public:
  LLMJob(std::string payload, JobReporter& reporter);

  bool takesLane() const override { return false; }  // it only waits for the provider
  bool ownsSpace() const override { return false; }
  bool mayCutLines() const override { return false; }
  const char* cancelText() const override { return "cancel requested — closing the provider call"; }
  const char* lostText() const override { return "lost the server, dropping the provider call"; }

  JobOutcome run() override;
  std::int32_t abandon() override;
  void terminate() override EXCLUDES(lock_);
  bool hasProcess() override { return false; }
  void killNow() override { terminate(); }

 private:
  JobOutcome refuse(const std::string& text, const char* complaint);
  JobOutcome call(ChatClient& client, const JV& payload);
  void postReply(const ChatClient::Completion& completion);
  void postLine(const std::string& line);

  JobReporter& reporter_;
  std::string payload_;

  Mutex lock_;
  std::shared_ptr<ChatClient> client_ GUARDED_BY(lock_);
  bool ending_ GUARDED_BY(lock_) = false;  ///< told to end
};

}  // namespace verdo
