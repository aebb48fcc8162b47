#pragma once

namespace verdo::test {

/// Sanitizers slow everything down: what measures speed or volume asks for less under them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace verdo::test
