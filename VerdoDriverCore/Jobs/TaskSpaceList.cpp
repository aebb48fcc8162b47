#include "VerdoDriverCore/Jobs/TaskSpaceList.h"

#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyValue.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace verdo::TaskSpaceList {
namespace {

constexpr std::string_view kMarker = "__SPACES__";

}  // namespace

std::optional<std::vector<JV>> read(std::span<const std::string> lines) {
  for (const auto& line : lines) {
    const auto marker = line.find(kMarker);
    if (marker == std::string::npos) continue;
    try {
      const JV answer = parseJson(std::string_view(line).substr(marker + kMarker.size()));
      const auto* all = answer.asArray();
      if (!all) return std::nullopt;
      std::vector<JV> spaces;
      std::copy_if(all->begin(), all->end(), std::back_inserter(spaces),
                   [](const JV& entry) { return entry.asObject() != nullptr; });
      return spaces;
    } catch (const PyError&) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

std::vector<std::string> names(std::span<const JV> spaces) {
  std::vector<std::string> names;
  for (const JV& space : spaces) {
    if (auto name = pyStrIfTruthy(space.find("name"))) names.push_back(std::move(*name));
  }
  return names;
}

}  // namespace verdo::TaskSpaceList
