#pragma once

namespace verdo {

/// Makes the allocator hand every block of a mebibyte and more back to the system as soon as it is
/// freed. A payload passes through several such blocks; what is kept of them for later use would
/// count as the process's memory for good. Called once, in main, before the first thread.
void giveBackLargeBlocks();

}  // namespace verdo
