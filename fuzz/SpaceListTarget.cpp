#include "VerdoDriverCore/Jobs/TaskSpaceList.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "fuzz/Targets.h"

#include <string>
#include <vector>

namespace verdo::fuzz {

void spaceList(std::string_view bytes) {
  std::vector<std::string> lines;
  while (!bytes.empty()) lines.push_back(repairUtf8(takeLine(bytes)));
  const auto spaces = TaskSpaceList::read(lines);
  if (!spaces) return;
  for (const JV& space : *spaces) require(space.asObject() != nullptr, "a space is an object");
  const auto names = TaskSpaceList::names(*spaces);
  require(names.size() <= spaces->size(), "a space has one name");
  for (const auto& name : names) require(!name.empty(), "a name is one");
  // The answer is the first that looks like one: whatever comes behind it changes nothing.
  lines.emplace_back("__SPACES__[]");
  require(TaskSpaceList::read(lines) == spaces, "the first answer counts");
}

}  // namespace verdo::fuzz
