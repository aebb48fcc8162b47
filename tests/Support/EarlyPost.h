#pragma once

namespace verdo::test {

/// Becomes true by a block that main() posts before the application object is there.
inline bool earlyPostRan = false;

}  // namespace verdo::test
