#include "VerdoDriver/Model/PairingTypes.h"

#include <fmt/format.h>

namespace verdo {

std::string PairingError::errorDescription() const {
  switch (kind_) {
    case Kind::http:
      return text_.empty() ? fmt::format("HTTP {}", status_)
                           : fmt::format("HTTP {}: {}", status_, text_);
    case Kind::badReply:
      return fmt::format("Unexpected reply from the server: {}", text_);
    case Kind::badURL:
      return "The server URL is not valid.";
    case Kind::refused:
    case Kind::transport:
      break;
  }
  return text_;
}

}  // namespace verdo
