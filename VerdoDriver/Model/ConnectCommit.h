#pragma once

#include <atomic>

namespace verdo {

/// Decides between the main thread and the one at the secret store whether what is stored stands.
class ConnectCommit {
 public:
  enum class Stage { open, atStore, stored, calledOff };

  /// False when it is at another stage than `from`, as after it was called off.
  bool advance(Stage from, Stage to) { return stage_.compare_exchange_strong(from, to); }
  /// Gives the stage before. After `stored` it is too late, and nothing is called off.
  Stage callOff() {
    Stage stage = stage_;
    while (stage != Stage::stored && !stage_.compare_exchange_weak(stage, Stage::calledOff)) {
    }
    return stage;
  }

  bool isCalledOff() const { return stage_ == Stage::calledOff; }

 private:
  std::atomic<Stage> stage_ = Stage::open;
};

}  // namespace verdo
