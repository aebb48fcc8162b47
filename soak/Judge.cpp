#include "soak/Judge.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

namespace verdo::soak {
namespace {

using Lines = std::span<const std::string>;

constexpr int kForeign = -1;
constexpr int kContinuation = -2;  ///< of the long line, which was cut to pass a proxy

/// Tells the lines of one job apart.
class LineIndex {
 public:
  /// `failed`: of an LLM job, which then gives its last line alone.
  LineIndex(const JobPlan& plan, bool failed) : plan_(plan), end_(failed ? kBadEnd : kGoodEnd) {
    if (!plan.isLLM() || failed) return;
    for (auto& line : llmLinesOf(plan)) {
      const int index = static_cast<int>(chunks_.size());
      chunks_.emplace(std::move(line), index);
    }
  }

  int operator()(const std::string& line) const {
    if (plan_.isLLM()) {
      if (line.starts_with(end_)) return static_cast<int>(chunks_.size());
      const auto found = chunks_.find(line);
      return found == chunks_.end() ? kForeign : found->second;
    }
    if (plan_.longLine >= 0 && line.find_first_not_of(kLongLineSigns) == line.npos) {
      return kContinuation;
    }
    const auto colon = line.find(':');
    int index = kForeign;
    if (colon == line.npos) return kForeign;
    std::from_chars(line.data() + colon + 1, line.data() + line.size(), index);
    if (index < 0 || index >= plan_.lines) return kForeign;
    const auto expected = lineOf(plan_, index);
    const bool matches = index == plan_.longLine ? expected.starts_with(line) : expected == line;
    return matches ? index : kForeign;
  }

  int expected() const {
    return plan_.isLLM() ? static_cast<int>(chunks_.size()) + 1 : plan_.lines;
  }

 private:
  const JobPlan& plan_;
  const std::string_view end_;
  std::unordered_map<std::string, int> chunks_;
};

/// What has come of a job's lines.
struct Received {
  std::vector<int> times;  // of each line
  std::uint64_t sentAgain = 0;
  std::uint64_t doubled = 0;
  std::uint64_t disordered = 0;
  std::uint64_t foreign = 0;
  std::string example;  // of those
  int end = 0;          ///< behind the last line that came

  int missing(int before) const {
    return static_cast<int>(std::count(times.begin(), times.begin() + before, 0));
  }
};

Received receive(const LineIndex& indexOf, const JobPlan& plan, Lines lines,
                 const std::vector<local::LinesPost>& posts, const Evidence& evidence) {
  Received received;
  received.times.resize(static_cast<std::size_t>(indexOf.expected()));
  // A post whose reply was lost is sent again: each of its lines may come once more.
  std::vector<int> allowed(received.times.size());
  Lines previous;
  bool previousLost = false;
  std::size_t longBytes = 0;
  bool longLost = false;
  for (const auto& post : posts) {
    const auto batch = lines.first(post.lines);
    lines = lines.subspan(post.lines);
    if (batch.empty()) continue;
    const bool lost = evidence.mayHaveLostReply(post.request);
    if (previousLost && std::ranges::equal(batch, previous)) {
      received.sentAgain += batch.size();
      previousLost = lost;
      continue;
    }
    for (const auto& line : batch) {
      const int index = indexOf(line);
      const bool isLong = index == kContinuation || (index >= 0 && index == plan.longLine);
      if (isLong) longBytes += line.size();
      if (isLong && lost) longLost = true;
      if (index == kForeign) {
        ++received.foreign;
        received.example = line.substr(0, 60);
      }
      if (index < 0) continue;
      const auto at = static_cast<std::size_t>(index);
      if (received.times[at]++ == 0) {
        if (index < received.end) ++received.disordered;
      } else if (allowed[at] > 0) {
        --allowed[at];
        ++received.sentAgain;
      } else {
        ++received.doubled;
      }
      received.end = std::max(received.end, index + 1);
      if (lost) ++allowed[at];
    }
    previous = batch;
    previousLost = lost;
  }
  // Of one that was sent again, in other pieces perhaps, nobody can tell which are missing.
  const bool isLongDue = plan.longLine >= 0 && received.end > plan.longLine + 1;
  const auto due = isLongDue ? lineOf(plan, plan.longLine).size() : 0;
  if (longLost ? longBytes < due : isLongDue && longBytes != due) {
    ++received.foreign;
    received.example =
        fmt::format("{} bytes of line {}, which has {}", longBytes, plan.longLine, due);
  }
  return received;
}

/// What a job was told to the service to have come to.
enum class End { planned, failed, other };

class Case {
 public:
  Case(const GivenJob& job, const local::Jobs& jobs, const Evidence& evidence, int runs,
       Tally& tally)
      : plan_(job.plan),
        evidence_(evidence),
        runs_(runs),
        tally_(tally),
        state_(jobs.find(job.id).value()),
        lines_(jobs.lines(job.id)),
        posts_(jobs.posts(job.id)) {}

  void judge() {
    ++(plan_.isLLM() ? tally_.llmJobs : tally_.browserJobs);
    tally_.lines += lines_.size();
    if (state_.cancelled) ++tally_.cancelled;
    judgeLeases();
    if (!judgeCompletion()) return;
    const auto end = howItEnded();
    if (end == End::failed) ++tally_.failed;
    // What two runs have printed cannot be told apart.
    if (!isTaken_) judgeLines(end);
  }

 private:
  void find(std::uint64_t& count, const std::string& text, std::uint64_t by = 1) {
    if (by == 0) return;
    count += by;
    if (tally_.findings.size() < 40) {
      tally_.findings.push_back(fmt::format(
          "job {} (plan {}{}{}, leased {}, run {}, exit {}, error {}): {}", state_.id, plan_.number,
          plan_.isLLM() ? ", llm" : "", state_.cancelled ? ", cancelled" : "", state_.timesLeased,
          runs_, state_.exitCode ? std::to_string(*state_.exitCode) : "none",
          state_.error.value_or("none"), text));
    }
  }

  void judgeLeases() {
    if (state_.timesLeased > 1) {
      const auto before =
          std::ranges::find_if(posts_.rbegin(), posts_.rend(),
                               [&](const auto& post) { return post.at < *state_.leased; });
      isTaken_ = before != posts_.rend();
      if (!isTaken_) {
        ++tally_.offeredAgain;
      } else if ((before->lines == 0 && evidence_.mayHaveLostReply(before->request)) ||
                 evidence_.excusesSilence(state_.id, before->at, *state_.leased)) {
        // An acknowledgement whose reply was lost may be none to the driver.
        ++tally_.taken;
      } else {
        find(tally_.leaseLost, "its lease has run out without cause");
      }
    }
    if (runs_ > 1 && !isTaken_) find(tally_.runTwice, "run twice");
    if (static_cast<std::uint64_t>(runs_) > state_.timesLeased) {
      find(tally_.unasked, "run more often than leased");
    }
  }

  bool judgeCompletion() {
    const bool begun = runs_ > 0 || (plan_.isLLM() && !lines_.empty());
    const bool mayGoWithout = state_.cancelled && (!begun || isTaken_);
    if (state_.state == local::JobState::done && (state_.completed || mayGoWithout)) return true;
    // The service itself ends a cancelled job whose lease has run out.
    if (state_.cancelled && state_.finished && !posts_.empty() &&
        evidence_.excusesSilence(state_.id, posts_.back().at, *state_.finished)) {
      ++tally_.taken;
      return isTaken_ = true;
    }
    find(tally_.unfinished, "not completed");
    return false;
  }

  End howItEnded() {
    const bool hasError = state_.error.has_value();
    if (!state_.completed) return End::planned;
    if (!hasError && state_.exitCode == plan_.exitTold()) return End::planned;
    if (plan_.isLLM() && !hasError && state_.exitCode == 1 &&
        (evidence_.excusesCall(modelOf(plan_.number)) || state_.cancelled)) {
      return End::failed;
    }
    const bool isStaging = state_.error == "file staging failed" && state_.exitCode == 127;
    if (isStaging && runs_ == 0 && plan_.fileBytes > 0 && evidence_.excusesStaging(state_.id)) {
      return End::failed;
    }
    const bool isKilled = !hasError && (state_.exitCode == -15 || state_.exitCode == -9 ||
                                        (plan_.isLLM() && state_.exitCode == 0));
    if (!(state_.cancelled && isKilled) && !isTaken_) find(tally_.wrongEnd, "a wrong end");
    return End::other;
  }

  void judgeLines(End end) {
    const LineIndex index(plan_, plan_.isLLM() && state_.exitCode == 1);
    const auto received = receive(index, plan_, lines_, posts_, evidence_);
    tally_.sentAgain += received.sentAgain;
    find(tally_.doubled, fmt::format("{} lines doubled", received.doubled), received.doubled);
    find(tally_.disordered, fmt::format("{} lines out of order", received.disordered),
         received.disordered);
    find(tally_.foreign, fmt::format("{} lines foreign: {}", received.foreign, received.example),
         received.foreign);
    int due = index.expected();
    // Of a job that was killed nobody knows how much it has printed, but for what is in between.
    if (state_.cancelled) due = received.end;
    if (end == End::failed && !plan_.isLLM()) due = 0;
    const auto missing = static_cast<std::uint64_t>(received.missing(due));
    find(tally_.lost, fmt::format("{} of {} lines lost", missing, due), missing);
  }

  const JobPlan& plan_;
  const Evidence& evidence_;
  const int runs_;
  Tally& tally_;
  const local::JobSnapshot state_;
  const std::vector<std::string> lines_;
  const std::vector<local::LinesPost> posts_;
  bool isTaken_ = false;
};

}  // namespace

void judge(const GivenJob& job, const local::Jobs& jobs, const Evidence& evidence, int runs,
           Tally& tally) {
  Case(job, jobs, evidence, runs, tally).judge();
}

}  // namespace verdo::soak
