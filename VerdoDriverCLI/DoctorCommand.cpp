#include "VerdoDriverCLI/DoctorCommand.h"

#include "VerdoDriverCLI/Config.h"
#include "VerdoDriverCore/Contract/EnvFile.h"
#include "VerdoDriverCore/Contract/Executor.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Doctor/Doctor.h"
#include "VerdoDriverCore/Doctor/Report.h"
#include "VerdoDriverCore/Process/Spawn.h"
#include "VerdoDriverCore/Values/PyJSON.h"

#include <atomic>
#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

namespace verdo::cli {
namespace {

constexpr const char* kCheck = "configuration";

/// Where the secrets come from: a headless driver has no store of its own.
Finding secretOrigins(const DriverConfig& config, const Secrets& secrets) {
  constexpr const char* kStore = "secret store";
  const auto origin = [](const std::string& used, const std::string& fromEnvironment) {
    if (used.empty()) return "none";
    return trimmedSecret(fromEnvironment).empty() ? "from the env file" : "from the environment";
  };
  return Finding::ok(kStore, fmt::format("none here: driver token {}, LLM key {}",
                                         origin(config.token, secrets.token),
                                         origin(config.llmKey, secrets.llmKey)));
}

std::optional<Finding> resolve(Options options, const Secrets& secrets, const std::string& envFile,
                               DriverConfig& config) {
  const DriverConfig withoutFile = options.config;
  const auto exec = options.exec;
  const auto defect = [&](Finding finding) {
    config = withoutFile;
    config.server.clear();  // the file may name another one than the default
    config.execCommand = exec ? *exec : Executor::defaultCommand(config.extraPathDirs);
    return finding;
  };
  try {
    config = resolveConfig(std::move(options), currentEnvironment(), secrets);
    return std::nullopt;
  } catch (const EnvFile::InsecureError& error) {
    return defect(
        Finding::failed(kCheck, fmt::format("others than you may read or change {}", error.path()),
                        "chmod 600 " + error.path() +
                            " (and, had others the chance to read it, issue new secrets)"));
  } catch (const PyError& error) {
    const bool isSecret = error.pyName() == "ValueError";
    return defect(Finding::failed(
        kCheck,
        isSecret ? error.what() : fmt::format("{} cannot be read: {}", envFile, error.what()),
        isSecret ? "Copy the secret again, as one line."
                 : "Make it a text file of KEY=VALUE lines that you alone can read."));
  }
}

}  // namespace

struct DoctorCommand::Impl {
  DoctorOptions asked;
  bool hasColor = false;
  DriverConfig config;
  std::unique_ptr<Doctor> doctor;
  std::atomic<bool> isStopped = false;
};

DoctorCommand::DoctorCommand(Options options, Secrets secrets) : impl_(std::make_unique<Impl>()) {
  impl_->asked = options.doctor.value_or(DoctorOptions{});
  impl_->hasColor = options.color.value_or(::isatty(STDOUT_FILENO) == 1);
  Doctor::Options doctor;
  doctor.envFile = options.config.envFilePath.value_or(DriverConstants::envFile());
  doctor.thorough = impl_->asked.thorough;
  doctor.configurationDefect = resolve(std::move(options), secrets, doctor.envFile, impl_->config);
  doctor.config = impl_->config;
  if (!doctor.configurationDefect) {
    doctor.secretStore = [config = impl_->config, secrets = std::move(secrets)] {
      return secretOrigins(config, secrets);
    };
  }
  impl_->doctor = std::make_unique<Doctor>(std::move(doctor));
}

DoctorCommand::~DoctorCommand() = default;

int DoctorCommand::run() const {
  const auto& asked = impl_->asked;
  if (asked.thorough) std::fprintf(stderr, "! %s\n", Doctor::kThoroughWarning);
  Doctor::OnFinding show;
  if (!asked.json && !asked.report) {
    show = [this](const Finding& finding) {
      std::fputs(textOf(finding, impl_->hasColor).c_str(), stdout);
      std::fflush(stdout);
    };
  }
  const auto findings = impl_->doctor->run(show);
  if (asked.json) std::printf("%s\n", PyJSON::text(jsonOf(findings)).c_str());
  if (asked.report) std::fputs(reportOf(findings, impl_->config).c_str(), stdout);
  if (impl_->isStopped) return ExitReason::stopped().code();
  return Doctor::isHealthy(findings) ? 0 : 1;
}

void DoctorCommand::stop() const {
  impl_->isStopped = true;
  impl_->doctor->stop();
}

}  // namespace verdo::cli
