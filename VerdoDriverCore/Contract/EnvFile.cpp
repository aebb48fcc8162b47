#include "VerdoDriverCore/Contract/EnvFile.h"

#include "VerdoDriverCore/System/UniqueFd.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo::EnvFile {
namespace {

constexpr std::string_view kSpace = " \t\r\n\v\f";
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kQuotes = "'\"";

std::string_view trim(std::string_view text, std::string_view dropped) {
  const auto begin = text.find_first_not_of(dropped);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(dropped) - begin + 1);
}

std::string readAll(int fd, const std::string& path) {
  std::string text;
  char chunk[4096];
  for (;;) {
    const ssize_t size = ::read(fd, chunk, sizeof chunk);
    if (size > 0) {
      text.append(chunk, static_cast<std::size_t>(size));
    } else if (size == 0) {
      return text;
    } else if (errno != EINTR) {
      failWithErrno(path);
    }
  }
}

}  // namespace

InsecureError::InsecureError(const std::string& path)
    : Error(fmt::format("{0} is readable by others — fix it first:  chmod 600 {0}", path)),
      path_(path) {}

std::map<std::string, std::string> read(const std::string& path) {
  // Opened first and examined through the descriptor, so that what was checked is what is read.
  // Non-blocking, should someone have put a FIFO there.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status{};
  if (!file) {
    const int reason = errno;
    if (reason == ENOENT) return {};
    // A file that even its owner may not read can still be one that others can.
    if (reason == EACCES && ::stat(path.c_str(), &status) == 0 && (status.st_mode & 0077) != 0) {
      throw InsecureError(path);
    }
    errno = reason;
    failWithErrno(path);
  }
  if (::fstat(file.get(), &status) != 0) failWithErrno(path);
  if ((status.st_mode & 0077) != 0) throw InsecureError(path);
  const std::string text = readAll(file.get(), path);
  if (repairUtf8(text) != text) {
    throw PyError("UnicodeDecodeError", fmt::format("{} is not UTF-8 text", path));
  }
  return parse(text);
}

std::map<std::string, std::string> parse(std::string_view text) {
  std::map<std::string, std::string> result;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = trim(text.substr(0, end), kSpace);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const auto equals = line.find('=');
    if (line.starts_with('#') || equals == std::string_view::npos) continue;
    const auto key = trim(line.substr(0, equals), kBlanks);
    const auto value = trim(trim(line.substr(equals + 1), kBlanks), kQuotes);
    result.insert_or_assign(std::string(key), std::string(value));
  }
  return result;
}

}  // namespace verdo::EnvFile
