#pragma once

#include "LocalService/FileStore.h"
#include "LocalService/Jobs.h"
#include "LocalService/Routes.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// /control/jobs: queueing, watching and cancelling jobs.
class ControlJobs {
 public:
  /// Both outlive this.
  ControlJobs(Jobs& jobs, const FileStore& files) : jobs_(jobs), files_(files) {}

  /// `words` are those of the path, "jobs" first. False: there is nothing at this address.
  bool serve(Exchange& exchange, const std::vector<std::string>& words) const;

 private:
  bool one(Exchange& exchange, const std::vector<std::string>& words) const;
  void lines(Exchange& exchange, std::int64_t id) const;
  void wait(Exchange& exchange, std::int64_t id) const;
  nlohmann::ordered_json known(std::int64_t id) const;  ///< throws HttpError 404

  Jobs& jobs_;
  const FileStore& files_;
};

}  // namespace verdo::local
