#pragma once

#include <functional>

/// The thread of the application object, on which everything in the model lives.
namespace verdo::MainThread {

/// True on that thread.
bool isCurrent();

/// Ends the program with a message that names `operation` when called on another thread: state
/// that is confined to one thread would otherwise be damaged silently.
void require(const char* operation);

/// Runs `block` on the main thread, in the order of posting, after the current event. Any thread
/// may call it, also before the application object is there: the block waits for it. Blocks that
/// nobody is left to run are dropped with the process. Whoever posts must hold the objects that the
/// block uses weakly (QPointer, made on the main thread).
void post(std::function<void()> block);

}  // namespace verdo::MainThread
