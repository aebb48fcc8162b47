#pragma once

#include "LocalService/Fault.h"
#include "LocalService/FileStore.h"
#include "LocalService/JobTypes.h"
#include "LocalService/PairingTypes.h"
#include "LocalService/ProviderRule.h"
#include "LocalService/RequestRecord.h"

#include <chrono>

#include <nlohmann/json.hpp>

namespace verdo::local {

// The values of the control interface as JSON. Readers throw HttpError 400 with what is wrong and
// what is wanted. Times are milliseconds since 1970, with fractions.

/// `files` resolves files given by "path".
JobSpec readJob(const nlohmann::ordered_json& json, const FileStore& files);
FileSpec readFile(const nlohmann::ordered_json& json, const FileStore& files);
Fault readFault(const nlohmann::ordered_json& json);
ProviderRule readProviderRule(const nlohmann::ordered_json& json);
/// Keys that are left out have their defaults.
PairingRules readPairingRules(const nlohmann::ordered_json& json);

nlohmann::ordered_json toJson(const JobSnapshot& job);
nlohmann::ordered_json toJson(const FaultStatus& fault);
nlohmann::ordered_json toJson(const ProviderRuleStatus& rule);  ///< texts only by their sizes
nlohmann::ordered_json toJson(const PairingSnapshot& pairing);  ///< without the secret code
/// Bearer tokens are masked but for their last four characters.
nlohmann::ordered_json toJson(const RequestRecord& request);
const char* toText(JobState state);

}  // namespace verdo::local
