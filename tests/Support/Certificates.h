#pragma once

#include "tests/Support/TempDir.h"

#include <string>

namespace verdo::test {

/// A certificate authority of its own and a certificate for 127.0.0.1 that it has issued, as PEM
/// files.
class Certificates {
 public:
  Certificates();
  std::string authority() const { return directory_ / "authority.pem"; }
  std::string certificate() const { return directory_ / "certificate.pem"; }
  std::string privateKey() const { return directory_ / "key.pem"; }

 private:
  TempDir directory_;
};

}  // namespace verdo::test
