#include "VerdoDriverCore/System/LargeBlocks.h"

#include <malloc.h>

namespace verdo {

// glibc raises its threshold to the size of the largest block that was freed, up to 32 MiB, and
// keeps twice as much at the end of its heap. Setting it ends that.
void giveBackLargeBlocks() { static_cast<void>(mallopt(M_MMAP_THRESHOLD, 1 << 20)); }

}  // namespace verdo
