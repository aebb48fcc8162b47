#include "VerdoDriver/Platform/Linux/GLibHandles.h"

#include "VerdoDriverCore/System/ThreadName.h"

namespace verdo {

namespace {

/// What still waits for delivery would keep its context alive, and the context it.
void drain(GMainContext* context) {
  while (g_main_context_iteration(context, FALSE)) {
  }
}

}  // namespace

GLibContext::~GLibContext() { drain(context_.get()); }

GLibContext::Use::Use(const GLibContext& context) : context_(context.context_.get()) {
  g_main_context_push_thread_default(context_);
}

GLibContext::Use::~Use() {
  drain(context_);
  g_main_context_pop_thread_default(context_);
}

BoundedGLibCalls::BoundedGLibCalls(std::chrono::milliseconds limit)
    : watchdog_([this, limit] {
        setThreadName("verdo-time-limit");
        if (!finished_.waitFor(limit)) g_cancellable_cancel(cancellable_.get());
      }) {}

BoundedGLibCalls::~BoundedGLibCalls() {
  finished_.set();
  watchdog_.join();
}

}  // namespace verdo
