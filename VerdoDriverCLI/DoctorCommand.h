#pragma once

#include "VerdoDriverCLI/Options.h"
#include "VerdoDriverCore/Contract/Secrets.h"

#include <memory>

namespace verdo {
class Doctor;
}

namespace verdo::cli {

/// `verdo-driver doctor`: shows on standard output what the doctor finds, as it is found or, for
/// --json and --report, when all is done.
class DoctorCommand {
 public:
  /// `secrets` is what was taken out of the environment. Never throws for a configuration that
  /// cannot be used: that is a finding.
  DoctorCommand(Options options, Secrets secrets);
  ~DoctorCommand();
  DoctorCommand(const DoctorCommand&) = delete;
  DoctorCommand& operator=(const DoctorCommand&) = delete;

  /// Gives the exit status: 0 when all that is needed works, 1 when not, 130 when stopped.
  int run() const;
  /// Makes run() return soon. Any thread.
  void stop() const;

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace verdo::cli
