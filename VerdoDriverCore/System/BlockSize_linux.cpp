#include "VerdoDriverCore/System/BlockSize.h"

#include <malloc.h>

namespace verdo {

std::size_t blockSize(void* memory) noexcept { return ::malloc_usable_size(memory); }

}  // namespace verdo
