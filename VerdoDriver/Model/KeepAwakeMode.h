#pragma once

#include <string_view>

namespace verdo {

/// When the computer is kept from sleeping.
enum class KeepAwakeMode {
  always,        ///< while the driver runs
  whileJobRuns,  ///< while a job runs
};
inline constexpr KeepAwakeMode kKeepAwakeModes[] = {KeepAwakeMode::always,
                                                    KeepAwakeMode::whileJobRuns};

/// "always" or "whileJobRuns", as the settings store it.
constexpr const char* nameOf(KeepAwakeMode mode) {
  return mode == KeepAwakeMode::always ? "always" : "whileJobRuns";
}

/// The mode of that name; `always` for any other text.
constexpr KeepAwakeMode keepAwakeModeOf(std::string_view name) {
  return name == nameOf(KeepAwakeMode::whileJobRuns) ? KeepAwakeMode::whileJobRuns
                                                     : KeepAwakeMode::always;
}

}  // namespace verdo
