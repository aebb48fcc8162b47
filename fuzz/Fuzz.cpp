// What libFuzzer calls. Usage: verdo-fuzz --target=TARGET [OPTION OF LIBFUZZER | FOLDER]...

#include "fuzz/JsonMutator.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using namespace verdo;

const fuzz::Target* chosen = nullptr;

std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

std::string mutatedBytes(std::string text, std::size_t maxSize) {
  const std::size_t size = text.size();
  text.resize(maxSize);
  text.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(text.data()), size, maxSize));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  constexpr std::string_view kOption = "--target=";
  for (int i = 1; i < *argc; ++i) {
    const std::string_view word = (*argv)[i];
    if (word.starts_with(kOption)) chosen = fuzz::targetNamed(word.substr(kOption.size()));
  }
  if (chosen) return 0;
  std::cerr << "verdo-fuzz wants --target= and one of";
  for (const auto& target : fuzz::kTargets) std::cerr << ' ' << target.name;
  std::cerr << '\n';
  std::exit(2);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  chosen->run(textOf(data, size));
  return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  // The bytes now and then, too: what is no JSON has to be read as well.
  const auto changed = chosen->isJson && seed % 4 != 0
                           ? fuzz::mutatedJson(textOf(data, size), seed, mutatedBytes)
                           : std::nullopt;
  if (!changed || changed->size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
  std::copy(changed->begin(), changed->end(), data);
  return changed->size();
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* one, std::size_t oneSize,
                                                 const std::uint8_t* other, std::size_t otherSize,
                                                 std::uint8_t* out, std::size_t maxSize,
                                                 unsigned seed) {
  const auto crossed = chosen->isJson
                           ? fuzz::crossedJson(textOf(one, oneSize), textOf(other, otherSize), seed)
                           : std::nullopt;
  if (!crossed || crossed->size() > maxSize) return 0;
  std::copy(crossed->begin(), crossed->end(), out);
  return crossed->size();
}
