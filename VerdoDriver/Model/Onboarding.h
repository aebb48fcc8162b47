#pragma once

#include "VerdoDriver/Model/ConnectFlow.h"
#include "VerdoDriver/Model/PairFlow.h"

#include <QObject>
#include <cstdint>
#include <optional>
#include <string>

namespace verdo {

/// Leads from the user's wish to connect to a saved setup: pairs, then has the connect flow prove
/// and save the token together with the LLM key. Main thread only.
///
/// A token that was approved is kept in memory until a connect has saved it, the service no longer
/// takes it, the pairing is cancelled, or another one begins: a wrong key costs another key, not
/// another pairing.
class Onboarding : public QObject {
 public:
  using Completion = ConnectFlow::Completion;

  /// Both flows outlive it.
  Onboarding(PairFlow& pairing, ConnectFlow& connecting)
      : pairing_(pairing), connecting_(connecting) {}

  /// Begins a pairing with the server that the user typed, in place of any other. `completion` gets
  /// what came of the connect; it is let go of when the pairing itself fails, which its state
  /// tells.
  void start(const std::string& serverURL, bool allowInsecure, const std::string& llmKey,
             Completion completion);
  /// Connects once more with the token that is kept and this key. Nothing without such a token.
  void retry(const std::string& llmKey, const Completion& completion);
  /// A token was approved and waits to be saved.
  bool hasApproval() const { return approval_.has_value(); }
  /// Ends the pairing or the connect that is under way, and forgets the token.
  void cancel();

 private:
  struct Approval {
    ConnectDraft draft;  ///< without the key
    std::string username;
  };
  void connect(const std::string& llmKey, const Completion& completion);
  void connected(std::uint64_t attempt, const ConnectResult& result);

  PairFlow& pairing_;
  ConnectFlow& connecting_;
  std::optional<Approval> approval_;
  std::uint64_t attempt_ = 0;  ///< the connect whose result counts
  bool isConnecting_ = false;
};

}  // namespace verdo
