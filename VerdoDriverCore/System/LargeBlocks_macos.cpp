#include "VerdoDriverCore/System/LargeBlocks.h"

namespace verdo {

// Large blocks are regions of their own here, and the system takes unused ones when it needs them.
void giveBackLargeBlocks() {}

}  // namespace verdo
