#pragma once

#include "VerdoDriver/App/FileLog.h"
#include "VerdoDriver/Model/AppModel.h"

#include <memory>
#include <string>

namespace verdo {

/// The model of the real app: the system's own services, the user's settings, and the driver.
/// `llmBase`: base URL of the LLM provider; empty: the default one. `extraCaCertPath`: PEM file of
/// certificates that the service is trusted with beside the system's roots; may be empty. Main
/// thread, once the application object is there.
std::unique_ptr<AppModel> makeAppModel(std::shared_ptr<FileLog> log, std::string llmBase,
                                       const std::string& extraCaCertPath);

}  // namespace verdo
