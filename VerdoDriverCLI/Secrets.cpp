#include "VerdoDriverCLI/Secrets.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"

#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

namespace verdo::cli {

void eraseSecretsFromEnvironment() {
  for (const char* name : {DriverConstants::tokenEnv, DriverConstants::llmKeyEnv}) {
    // unsetenv only forgets where the text is; the kernel still shows it to the user's processes.
    if (char* value = std::getenv(name)) OPENSSL_cleanse(value, std::strlen(value));
    ::unsetenv(name);
  }
}

}  // namespace verdo::cli
