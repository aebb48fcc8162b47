#include "VerdoDriverCore/Jobs/FileStager.h"

#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

namespace verdo::FileStager {
namespace {

/// Room for a number in front, within the 255 bytes that file systems allow.
constexpr std::size_t kMaxName = 200;

bool isSafe(char32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

/// Gives safe names that differ in more than case: some volumes take "A" and "a" for one file.
class DistinctNames {
 public:
  std::string next(const std::string& name) {
    const std::string safe = safeName(name);
    std::string candidate = safe;
    // Counted on from the last number: many files may have one name.
    int& number = numbers_.try_emplace(lowered(safe), 1).first->second;
    while (!taken_.insert(lowered(candidate)).second) {
      candidate = fmt::format("{}-{}", ++number, safe);
    }
    return candidate;
  }

 private:
  static std::string lowered(std::string safe) {
    for (char& c : safe) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return safe;
  }

  std::unordered_set<std::string> taken_;
  std::unordered_map<std::string, int> numbers_;
};

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

constexpr std::string_view kMarker = "__VERDO_FILE__";

/// What stands for a file: the key is the end of its placeholder, behind the marker ("{name}__").
using Literals = std::map<std::string, std::string, std::less<>>;

/// The longest key that `text` begins with.
Literals::const_iterator longestPrefix(const Literals& literals, std::string_view text) {
  // A key that the text begins with is not behind the text in order, and those between them begin
  // with it too: where the one right before the text does not fit, only what both share can.
  for (auto behind = literals.upper_bound(text); behind != literals.begin();
       behind = literals.upper_bound(text)) {
    const auto before = std::prev(behind);
    const std::string& key = before->first;
    if (text.starts_with(key)) return before;
    const auto [inText, inKey] = std::mismatch(text.begin(), text.end(), key.begin(), key.end());
    text = text.substr(0, static_cast<std::size_t>(inText - text.begin()));
  }
  return literals.end();
}

/// Gives `take` the payload in parts, literals in the place of placeholders.
template <class Take>
void eachPart(std::string_view payload, const Literals& literals, Take take) {
  std::size_t begin = 0;
  for (std::size_t at = 0; (at = payload.find(kMarker, at)) != payload.npos;) {
    const std::size_t behind = at + kMarker.size();
    const auto literal = longestPrefix(literals, payload.substr(behind));
    if (literal == literals.end()) {
      ++at;
      continue;
    }
    take(payload.substr(begin, at - begin));
    take(literal->second);
    begin = at = behind + literal->first.size();
  }
  take(payload.substr(begin));
}

/// The payload with all placeholders replaced, in one pass for its length and one to write it.
std::string withLiterals(std::string payload, const Literals& literals) {
  if (payload.find(kMarker) == payload.npos) return payload;
  std::size_t size = 0;
  eachPart(payload, literals, [&](std::string_view part) { size += part.size(); });
  std::string out;
  out.reserve(size);
  eachPart(payload, literals, [&](std::string_view part) { out.append(part); });
  return out;
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
  if (safe.size() > kMaxName) safe.erase(0, safe.size() - kMaxName);
  return safe.empty() || safe == "." || safe == ".." ? "file" : safe;
}

std::string stage(const Job& job, std::string payload, const Download& download, LogSink& log,
                  const std::string& directory) {
  DistinctNames names;
  Literals literals;
  for (const JobFile& file : job.files) {
    const std::string& url = required(file.url, "url");
    const std::string& sha256 = required(file.sha256, "sha256");
    const std::string path = directory + "/" + names.next(file.name);
    if (download(url, path) != sha256) {
      throw PyError("ValueError", fmt::format("staged file {} failed its checksum", file.name));
    }
    literals.emplace(file.name + "__", literal(path));  // a name's first file stays
  }
  log.info(fmt::format("job {}: {} file(s) staged", job.id, job.files.size()));
  return withLiterals(std::move(payload), literals);
}

}  // namespace verdo::FileStager
