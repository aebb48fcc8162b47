// The executor of the driver that is measured, small and static so that its own start costs next to
// nothing. As a job it plays the role in its arguments; a script that only lists task spaces ends
// at once, as with any executor that has none.
//
//   stamp        prints the monotonic clock, nanoseconds, as its first act
//   flood BYTES  prints that many bytes in numbered 100-byte lines
//   script       the same, as many as the script says
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>

#include <unistd.h>

namespace {

constexpr std::size_t kLine = 100;
constexpr std::size_t kBlock = 64 * 1024;

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t size = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (size < 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
}

std::string beginOfScript() {
  std::string script(4096, '\0');
  const ssize_t size = ::read(STDIN_FILENO, script.data(), script.size());
  script.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return script;
}

void flood(long long bytes) {
  const std::string filler(kLine, 'x');
  std::string block;
  for (long long line = 0; line < bytes / static_cast<long long>(kLine); ++line) {
    const std::string number = std::to_string(line);
    block += number;
    block.append(filler, 0, kLine - 1 - number.size());
    block += '\n';
    if (block.size() + kLine > kBlock) {
      writeAll(block);
      block.clear();
    }
  }
  writeAll(block);
}

}  // namespace

int main(int argc, char** argv) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const std::string script = argc < 2 ? "" : beginOfScript();
  if (argc < 2 || script.find("listTaskSpaces") != std::string::npos) return 0;
  if (std::strcmp(argv[1], "stamp") == 0) {
    writeAll(std::to_string(std::chrono::nanoseconds(now).count()) + "\n");
  } else if (std::strcmp(argv[1], "script") == 0) {
    flood(std::stoll(script));
  } else if (argc > 2) {
    flood(std::stoll(argv[2]));
  }
  return 0;
}
