#pragma once

#include <cstddef>

// Memory of the C library whose content does not outlive it: what held a secret is overwritten
// before somebody else can be given it, or it lies around in a process that lives for weeks. Any
// thread may call any of these; `memory` is from malloc and its like, or null.

namespace verdo {

/// free(), of bytes that are zero by then.
void wipeAndFree(void* memory) noexcept;
/// realloc(), which leaves no copy behind. Null when there is no memory: the old block is as it
/// was.
void* wipeAndReallocate(void* memory, std::size_t size) noexcept;

/// Overwrites what functions of this thread that have returned left on its stack, the next 64 KiB:
/// stacks of threads that end are kept for later ones. Not only variables lie there: the dynamic
/// linker saves the processor's wide registers, which have just copied a text, to it.
void wipeUsedStack() noexcept;

}  // namespace verdo
