#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Jobs/BodyLimit.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/System/Sync.h"

#include <memory>
#include <string>

namespace verdo {

class Worker;

/// What a worker needs of the serve loop that leased its job. Any thread may call any operation.
/// Workers share its ownership, so that one that outlives a shutdown still has everything it uses.
class JobHost {
 public:
  virtual ~JobHost() = default;
  virtual Api& api() = 0;
  virtual LogSink& log() = 0;
  virtual Browser& browser() = 0;
  virtual const Timings& timings() const = 0;
  /// The size of posts, which all jobs of the run learn together.
  virtual BodyLimit& bodyLimit() = 0;
  /// The provider key; empty: there is none.
  virtual const std::string& llmKey() const = 0;
  /// The provider's base URL.
  virtual const std::string& llmBase() const = 0;
  /// The session that all provider calls share; made at the first call.
  virtual std::shared_ptr<HttpSession> providerSession() = 0;
  /// Set once the run must end.
  virtual const Event& stopping() const = 0;
  /// A call of the worker's learnt that the service has revoked the token: ends the run.
  virtual void tokenWasRevoked() = 0;
  /// Marks a task space as just used, for the idle reaper.
  virtual void touchSpace(const std::string& name) = 0;
  /// The worker has finished everything: its lane is free.
  virtual void workerDone(Worker& worker) = 0;
};

}  // namespace verdo
