#pragma once

// The part of Dispatch that the adapters use.

using dispatch_queue_t = struct FakeDispatchQueue*;
using dispatch_queue_attr_t = struct FakeDispatchQueueAttribute*;
#define DISPATCH_QUEUE_SERIAL (static_cast<dispatch_queue_attr_t>(nullptr))

extern "C" {
dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attribute);
void dispatch_release(dispatch_queue_t queue);
}
