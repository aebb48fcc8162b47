#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Changes texts in JSON so that they stay JSON: bytes changed at random seldom get past the
/// reader.
namespace verdo::fuzz {

/// Changes a text at random, to `maxSize` bytes at most.
using MutateBytes = std::function<std::string(std::string text, std::size_t maxSize)>;

/// The text with one of its values or keys changed; absent for what is no JSON.
std::optional<std::string> mutatedJson(std::string_view text, unsigned seed,
                                       const MutateBytes& mutateBytes);

/// The first text with a value (or a member) of the second put into it; absent when either is no
/// JSON. Thus keys that one reader wants come into the inputs of another's values.
std::optional<std::string> crossedJson(std::string_view text, std::string_view other,
                                       unsigned seed);

}  // namespace verdo::fuzz
