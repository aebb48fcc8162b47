#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace verdo {

/// Both secrets of a driver. Empty: there is none.
struct Secrets {
  std::string token;   ///< of the service
  std::string llmKey;  ///< of the provider
};

/// Takes both secrets out of this process's environment, their bytes included: no child inherits
/// them and no process listing shows them. Gives what was there, untrimmed. Call it in main, before
/// the first thread starts.
Secrets eraseSecretsFromEnvironment();

/// From now on a crash of this process, or of a child that does not choose otherwise, leaves no
/// core file behind, in which both secrets would stand. A handler of the system's that is given
/// crashes (core(5)) is told so, too; whether it heeds that is its own affair.
void forbidCoreDumps();

/// The secret without the white space at its ends (ASCII), which copying and editors add.
std::string trimmedSecret(std::string_view secret);

/// Why a trimmed secret cannot be used: it holds a control character, such as a line end, which
/// would end the header that carries it and begin another. The sentence names the secret as `name`
/// says and never repeats it. Absent when the secret is fit, as an empty one is.
std::optional<std::string> secretRefusal(std::string_view name, std::string_view secret);

}  // namespace verdo
