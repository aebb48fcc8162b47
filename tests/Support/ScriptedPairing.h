#pragma once

#include "VerdoDriver/Model/PairingService.h"

#include <vector>

namespace verdo::test {

/// Keeps the calls of a pairing flow; the test answers them when it likes.
class ScriptedPairing : public PairingService {
 public:
  template <typename Completion>
  struct Call {
    std::string text;  ///< host or code
    Completion answer;
  };
  void start(const std::string&, bool, const std::string& host, StartCompletion answer) override {
    starts.push_back({host, std::move(answer)});
  }
  void poll(const std::string&, bool, const std::string& code, PollCompletion answer) override {
    polls.push_back({code, std::move(answer)});
  }
  std::vector<Call<StartCompletion>> starts;
  std::vector<Call<PollCompletion>> polls;
};

}  // namespace verdo::test
