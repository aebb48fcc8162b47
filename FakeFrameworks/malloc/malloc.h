#pragma once

#include <cstddef>

#include <malloc.h>

inline std::size_t malloc_size(const void* memory) {
  return ::malloc_usable_size(const_cast<void*>(memory));
}
