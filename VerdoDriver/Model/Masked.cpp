#include "VerdoDriver/Model/Masked.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"

namespace verdo {

std::string masked(const std::string& secret) {
  return secret.empty() ? "(none)" : "····" + DriverConstants::lastFour(secret);
}

}  // namespace verdo
