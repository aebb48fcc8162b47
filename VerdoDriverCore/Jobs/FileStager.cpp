#include "VerdoDriverCore/Jobs/FileStager.h"

#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <set>

#include <fmt/format.h>

namespace verdo::FileStager {
namespace {

/// Room for a number in front, within the 255 bytes that file systems allow.
constexpr std::size_t kLongestName = 200;

bool isSafe(char32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

/// A safe name that no earlier file of the job has.
std::string distinctName(const std::string& name, std::set<std::string>& taken) {
  const std::string safe = safeName(name);
  std::string candidate = safe;
  for (int number = 2; !taken.insert(candidate).second; ++number) {
    candidate = fmt::format("{}-{}", number, safe);
  }
  return candidate;
}

/// The path as a string literal of the script: text beyond ASCII stays readable in it.
std::string literal(const std::string& path) {
  std::string out = "\"";
  for (const char c : path) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\u{:04x}", static_cast<unsigned char>(c));
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
  return out;
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
}

const std::string& required(const std::optional<std::string>& value, const char* key) {
  if (!value) throw PyError("KeyError", fmt::format("'{}'", key));
  return *value;
}

}  // namespace

std::string safeName(const std::string& name) {
  std::string safe;
  for (std::size_t at = 0; at < name.size();) {
    const char32_t c = decodeUtf8(name, at);
    safe.push_back(isSafe(c) ? static_cast<char>(c) : '_');
  }
  // The end is kept, for the sake of the file's extension.
  if (safe.size() > kLongestName) safe.erase(0, safe.size() - kLongestName);
  return safe.empty() || safe == "." || safe == ".." ? "file" : safe;
}

std::string stage(const Job& job, std::string payload, const Download& download, LogSink& log,
                  const std::string& directory) {
  std::set<std::string> taken;
  for (const JobFile& file : job.files) {
    const std::string& url = required(file.url, "url");
    const std::string& sha256 = required(file.sha256, "sha256");
    const std::string path = directory + "/" + distinctName(file.name, taken);
    if (download(url, path) != sha256) {
      throw PyError("ValueError", fmt::format("staged file {} failed its checksum", file.name));
    }
    replaceAll(payload, fmt::format("__VERDO_FILE__{}__", file.name), literal(path));
  }
  log.info(fmt::format("job {}: {} file(s) staged", job.id, job.files.size()));
  return payload;
}

}  // namespace verdo::FileStager
