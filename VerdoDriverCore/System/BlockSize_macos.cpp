#include "VerdoDriverCore/System/BlockSize.h"

#include <malloc/malloc.h>

namespace verdo {

std::size_t blockSize(void* memory) noexcept { return ::malloc_size(memory); }

}  // namespace verdo
