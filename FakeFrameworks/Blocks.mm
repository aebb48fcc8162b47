// Path monitors, which call a block, and the blocks themselves, whose layout clang publishes. A
// monitor's queue runs here on a thread for each update.

#include "FakeFrameworks/FakeFrameworks.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <Network/Network.h>

namespace {

using namespace verdo;

struct Block {
  void* isa;
  int flags;
  int owners;
  void (*invoke)(void*, ...);
  struct Descriptor {
    unsigned long reserved;
    unsigned long size;
    void (*copy)(void* to, const void* from);
    void (*dispose)(const void* block);
  } const* descriptor;
};
constexpr int kHasCopy = 1 << 25;
constexpr int kIsGlobal = 1 << 28;

}  // namespace

extern "C" {
void* _NSConcreteStackBlock[32];
void* _NSConcreteGlobalBlock[32];
void _Block_object_assign(void* to, const void* from, int) { std::memcpy(to, &from, sizeof from); }
void _Block_object_dispose(const void*, int) {}
}

namespace {

void* copyOf(const void* block) {
  const auto* const from = static_cast<const Block*>(block);
  fake::countObject(1);
  if (from->flags & kIsGlobal) return const_cast<void*>(block);
  auto* const copy = static_cast<Block*>(std::malloc(from->descriptor->size));
  std::memcpy(copy, from, from->descriptor->size);
  if (from->flags & kHasCopy) from->descriptor->copy(copy, from);
  return copy;
}

void dispose(void* block) {
  auto* const it = static_cast<Block*>(block);
  fake::countObject(-1);
  if (it->flags & kIsGlobal) return;
  if (it->flags & kHasCopy) it->descriptor->dispose(it);
  std::free(it);
}

}  // namespace

struct FakeDispatchQueue {
  int owners = 1;
};
struct FakePath {
  nw_path_status_t status;
};
struct FakePathMonitor {
  FakeDispatchQueue* queue = nullptr;
  void* handler = nullptr;
};

namespace {

FakePathMonitor* started = nullptr;

void letGo(FakeDispatchQueue* queue) {
  if (!queue || --queue->owners > 0) return;
  delete queue;
  fake::countObject(-1);
}

}  // namespace

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t) {
  fake::record(std::string("dispatch_queue_create ") + label);
  fake::countObject(1);
  return new FakeDispatchQueue;
}
void dispatch_release(dispatch_queue_t queue) { letGo(queue); }

nw_path_monitor_t nw_path_monitor_create() {
  fake::countObject(1);
  return new FakePathMonitor;
}
void nw_path_monitor_set_queue(nw_path_monitor_t monitor, dispatch_queue_t queue) {
  ++queue->owners;
  monitor->queue = queue;
}
void nw_path_monitor_set_update_handler(nw_path_monitor_t monitor,
                                        nw_path_monitor_update_handler_t handler) {
  monitor->handler = copyOf(reinterpret_cast<const void*>(handler));
}
void nw_path_monitor_start(nw_path_monitor_t monitor) {
  if (monitor->queue && monitor->handler) started = monitor;
}
void nw_path_monitor_cancel(nw_path_monitor_t monitor) {
  if (started == monitor) started = nullptr;
}
nw_path_status_t nw_path_get_status(nw_path_t path) { return path->status; }
void nw_release(void* object) {
  auto* const monitor = static_cast<FakePathMonitor*>(object);
  if (started == monitor) return;  // it goes on until it is cancelled
  if (monitor->handler) dispose(monitor->handler);
  letGo(monitor->queue);
  delete monitor;
  fake::countObject(-1);
}

namespace verdo::fake {

void reportPath(int status) {
  if (!started) return;
  std::thread([handler = started->handler, status] {
    FakePath path{static_cast<nw_path_status_t>(status)};
    auto* const block = static_cast<Block*>(handler);
    reinterpret_cast<void (*)(void*, nw_path_t)>(block->invoke)(block, &path);
  }).join();
}

}  // namespace verdo::fake
