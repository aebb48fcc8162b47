#pragma once

#include <cstddef>

namespace verdo {

/// How many bytes may be written at an address that malloc or its like has given, at least as many
/// as were asked for; 0 for null.
std::size_t blockSize(void* memory) noexcept;

}  // namespace verdo
