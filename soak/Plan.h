#pragma once

#include "LocalService/JobTypes.h"
#include "LocalService/ProviderRule.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace verdo::soak {

using Random = std::mt19937_64;
using Milliseconds = std::chrono::milliseconds;

/// A whole number from `from` to `to`, the same on every machine for the same generator.
int between(Random& random, int from, int to);
bool chance(Random& random, double probability);

/// Who prints a browser job's last lines.
enum class Family {
  none,      ///< the job's process alone
  heir,      ///< a grandchild in the job's group, after its parent's end
  runaway,   ///< a grandchild in a session of its own, after its parent's end
  lingerer,  ///< nobody: a grandchild in the group stays behind, with its outputs closed
};

/// When the service cancels the job.
enum class Cancel { never, queued, atOnce, atWork };

/// What the provider does about an LLM job, by a word in its prompt.
enum class Provider { prompt, slow, blankLines, large, refuses };

/// Everything about one job, from the plan's seed alone. A plain value.
struct JobPlan {
  int number = 0;  ///< 0, 1, … within its road
  std::string lane;
  Cancel cancel = Cancel::never;
  Milliseconds cancelAfter{0};  ///< after the job's acknowledgement

  // An LLM job.
  std::optional<Provider> provider;
  int promptWords = 0;

  // A browser job.
  int lines = 0;  ///< of them the last `familyLines` are the grandchild's
  int familyLines = 0;
  int longLine = -1;  ///< index of the long line; none
  int longBytes = 0;
  Milliseconds time{0};  ///< over which the lines are printed, in bursts
  int bursts = 1;
  int exitCode = 0;
  int endSignal = 0;  ///< the process's end instead of an exit
  Family family = Family::none;
  bool deaf = false;  ///< to SIGTERM
  int fileBytes = 0;  ///< of a staged file; 0: there is none
  bool space = false;
  bool closesSpace = false;

  bool isLLM() const { return provider.has_value(); }
  /// The exit code that the service is told when all goes well.
  int exitTold() const;
};

/// How much of what a plan holds.
struct PlanOptions {
  bool brief = false;  ///< of a run of a minute: nothing that takes longer
  Milliseconds lease{60'000};
};

JobPlan makePlan(int number, Random& random, const PlanOptions& options);

/// The plan as the service is given it.
local::JobSpec specOf(const JobPlan& plan, bool absoluteFiles);
std::string fileContent(int number, int bytes);
/// Line `index` of a browser job.
std::string lineOf(const JobPlan& plan, int index);
/// All that a piece of the long line holds, but for the first one.
inline constexpr std::string_view kLongLineSigns = "y0123456789";
/// All lines of an LLM job that works, but for the last; that begins with a text below.
std::vector<std::string> llmLinesOf(const JobPlan& plan);
inline constexpr std::string_view kGoodEnd = "__LLMEND__{\"ok\": true";
inline constexpr std::string_view kBadEnd = "__LLMEND__{\"ok\": false";
/// By which an LLM job is known to the provider.
std::string modelOf(int number);
/// What the provider does for the words in the prompts, given to LocalService.
std::vector<local::ProviderRule> providerRules();

}  // namespace verdo::soak
