#pragma once

#include <cstdlib>
#include <iostream>
#include <string_view>

/// What reads bytes from outside, each as a function of the bytes alone. A target returns for
/// whatever it is given; what it finds wrong ends the program. Apart from crashes it looks for
/// answers that differ from a plain model's, or that break a promise of the header.
namespace verdo::fuzz {

void env(std::string_view bytes);           ///< both readers of env files
void json(std::string_view bytes);          ///< JSON to values and back
void lines(std::string_view bytes);         ///< a child's output, from chunks to posted batches
void pairing(std::string_view bytes);       ///< what the app hears: pairing and manifest
void provider(std::string_view bytes);      ///< LLM jobs, completions and key checks
void service(std::string_view bytes);       ///< hello, polls with their jobs, lines replies
void settings(std::string_view bytes);      ///< the app's settings file
void spaceList(std::string_view bytes);     ///< the executor's list of task spaces
void spacePattern(std::string_view bytes);  ///< the service's pattern, with names to search
void urls(std::string_view bytes);          ///< server and link
void versions(std::string_view bytes);      ///< two versions of the app
void words(std::string_view bytes);         ///< the executor's command line

struct Target {
  std::string_view name;  ///< of its folders in seeds/ and found/, too
  void (*run)(std::string_view bytes);
  bool isJson = false;  ///< its inputs are texts in JSON, and are changed as such
};

inline constexpr Target kTargets[] = {
    {"env", env},
    {"json", json, true},
    {"lines", lines},
    {"pairing", pairing, true},
    {"provider", provider, true},
    {"service", service, true},
    {"settings", settings},
    {"space-list", spaceList},
    {"space-pattern", spacePattern},
    {"urls", urls},
    {"versions", versions},
    {"words", words},
};

/// Null for a name that no target has.
constexpr const Target* targetNamed(std::string_view name) {
  for (const Target& target : kTargets) {
    if (target.name == name) return &target;
  }
  return nullptr;
}

/// Ends the program with `what` when that does not hold.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "does not hold: " << what << std::endl;
  std::abort();
}

/// Takes the first line off the bytes: inputs of several texts have one a line, the last unlimited.
inline std::string_view takeLine(std::string_view& bytes) {
  const auto end = bytes.find('\n');
  const auto line = bytes.substr(0, end);
  bytes.remove_prefix(end == bytes.npos ? bytes.size() : end + 1);
  return line;
}

}  // namespace verdo::fuzz
