#include "tests/Support/ExecutorRole.h"

#include "VerdoDriverCore/Process/Shlex.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Misbehaviour.h"
#include "tests/Support/TempDir.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <unistd.h>

namespace verdo::test {
namespace {

constexpr std::string_view kList = "const spaces = await listTaskSpaces()\n";
constexpr std::string_view kClose = "await completeTaskSpace(";

/// Hangs for ever when the tests asked for it.
void hangIfAsked(const std::string& stateFile, const std::string& script) {
  const auto told = linesOf(stateFile + ".hang");
  if (std::find(told.begin(), told.end(), script) == told.end()) return;
  ::signal(SIGTERM, SIG_IGN);
  std::ofstream(stateFile + ".hanging", std::ios::app) << script << std::endl;
  for (;;) ::pause();
}

int list(const std::string& stateFile) {
  hangIfAsked(stateFile, "list");
  auto answer = nlohmann::json::array();
  for (const auto& name : linesOf(stateFile)) answer.push_back({{"name", name}});
  std::cout << "chatter\n__SPACES__" << answer.dump() << std::endl;
  return 0;
}

int close(const std::string& stateFile, const std::string& script) {
  hangIfAsked(stateFile, "close");
  const auto end = script.find(", { keep: false })");
  const std::string name = nlohmann::json::parse(script.substr(kClose.size(), end - kClose.size()));
  std::string rest;
  for (const auto& space : linesOf(stateFile)) {
    if (space != name) rest += space + "\n";
  }
  std::ofstream(stateFile) << rest;
  std::ofstream(stateFile + ".closed", std::ios::app) << name << "\n";
  std::cout << "closed" << std::endl;
  return 0;
}

void number(int count) {
  std::string block;
  for (int i = 0; i < count; ++i) {
    block += numberedLine(i) + "\n";
    if (block.size() < 60'000 && i + 1 < count) continue;
    std::cout.write(block.data(), static_cast<std::streamsize>(block.size()));
    block.clear();
  }
}

}  // namespace

std::string numberedLine(int index) { return fmt::format("{:010} {:x<88}", index, ""); }

int executeScript(const std::string& stateFile) {
  const std::string script{std::istreambuf_iterator<char>(std::cin), {}};
  if (script.starts_with(kList)) return list(stateFile);
  if (script.starts_with(kClose)) return close(stateFile, script);

  const auto words = Shlex::split(script.substr(0, script.find('\n')));
  if (words.empty()) return 0;
  const std::string& name = words[0];
  if (name == "say") {
    for (std::size_t i = 1; i < words.size(); ++i) std::cout << words[i] << "\n";
  } else if (name == "number") {
    number(std::stoi(words.at(1)));
  } else if (name == "long") {
    std::cout << std::string(std::stoul(words.at(1)), 'y') << "\n";
  } else if (name == "wait") {
    std::cout << "ready" << std::endl;
    eventually([&] { return std::filesystem::exists(words.at(1)); }, std::chrono::minutes(1));
    if (words.size() > 2) number(std::stoi(words[2]));
  } else if (name == "cat") {
    std::cout << contentOf(words.at(1)) << "\n";
  } else {
    return misbehave(words);
  }
  std::cout << std::flush;
  return 0;
}

}  // namespace verdo::test
