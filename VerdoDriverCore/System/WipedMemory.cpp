#include "VerdoDriverCore/System/WipedMemory.h"

#include "VerdoDriverCore/System/BlockSize.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace verdo {
namespace {

void wipe(void* memory, std::size_t size) noexcept {
  std::memset(memory, 0, size);
  // Somebody may look: without this the compiler drops what is written to memory that is freed.
  asm volatile("" : : "r"(memory) : "memory");
}

}  // namespace

void wipeAndFree(void* memory) noexcept {
  if (memory) wipe(memory, blockSize(memory));
  std::free(memory);
}

void* wipeAndReallocate(void* memory, std::size_t size) noexcept {
  const std::size_t before = blockSize(memory);
  if (memory && size <= before && size >= before / 2) return memory;
  void* const moved = std::malloc(size);
  if (!moved) return nullptr;
  if (memory) std::memcpy(moved, memory, std::min(before, size));
  wipeAndFree(memory);
  return moved;
}

[[gnu::noinline]] void wipeUsedStack() noexcept {
  std::array<char, 64u << 10> used;
  wipe(used.data(), used.size());
}

}  // namespace verdo
