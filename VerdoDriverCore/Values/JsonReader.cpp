#include "VerdoDriverCore/Values/JsonReader.h"

#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <limits>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace verdo {
namespace {

/// The parser's message without its internal identifier ("[json.exception.…] "), cut short: it
/// quotes what it read last, which may be long.
std::string readableReason(std::string_view message) {
  constexpr std::size_t kLimit = 200;
  if (message.starts_with('[')) {
    const auto end = message.find("] ");
    if (end != std::string_view::npos) message.remove_prefix(end + 2);
  }
  return firstCharacters(message, kLimit);
}

/// Keeps the last value of each repeated key, at the first one's place.
void mergeRepeatedKeys(JV::Object& object) {
  std::unordered_map<std::string, std::size_t> places;
  places.reserve(object.size());
  std::size_t kept = 0;
  for (std::size_t i = 0; i < object.size(); ++i) {
    const auto [place, isNew] = places.try_emplace(object[i].key, kept);
    if (!isNew) {
      object[place->second].value = std::move(object[i].value);
    } else {
      if (kept != i) object[kept] = std::move(object[i]);
      ++kept;
    }
  }
  object.resize(kept);
}

/// Builds the value while the parser reads: nothing is kept twice, and depth is bounded.
class Builder : public nlohmann::json_sax<nlohmann::json> {
 public:
  JV result;
  std::string failure;

  bool null() override { return put(JV()); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(std::int64_t value) override { return put(value); }
  bool number_unsigned(std::uint64_t value) override {
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return put(static_cast<double>(value));
    }
    return put(static_cast<std::int64_t>(value));
  }
  bool number_float(double value, const std::string&) override { return put(value); }
  bool string(std::string& value) override { return put(std::move(value)); }
  bool binary(nlohmann::json::binary_t&) override { return false; }
  bool key(std::string& value) override {
    open_.back().key = std::move(value);
    return true;
  }
  bool start_object(std::size_t) override { return enter(true); }
  bool start_array(std::size_t) override { return enter(false); }
  bool end_object() override {
    Container done = leave();
    mergeRepeatedKeys(done.members);
    return put(std::move(done.members));
  }
  bool end_array() override { return put(leave().items); }
  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::detail::exception& error) override {
    failure = readableReason(error.what());
    return false;
  }

 private:
  struct Container {
    bool isObject = false;
    std::string key;
    JV::Object members;
    JV::Array items;
  };

  bool enter(bool isObject) {
    if (open_.size() >= kMaxJsonDepth) {
      failure = fmt::format("nested more than {} levels deep", kMaxJsonDepth);
      return false;
    }
    open_.push_back({isObject, {}, {}, {}});
    return true;
  }

  Container leave() {
    Container done = std::move(open_.back());
    open_.pop_back();
    return done;
  }

  bool put(JV value) {
    if (open_.empty()) {
      result = std::move(value);
    } else if (Container& parent = open_.back(); parent.isObject) {
      parent.members.push_back({std::move(parent.key), std::move(value)});
    } else {
      parent.items.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Container> open_;
};

}  // namespace

JV parseJson(std::string_view text) {
  // The parser takes a zero byte for the end of the text.
  if (const auto zero = text.find('\0'); zero != std::string_view::npos) {
    throw PyError("JSONDecodeError", fmt::format("zero byte at position {}", zero));
  }
  Builder builder;
  const bool parsed = nlohmann::json::sax_parse(text.begin(), text.end(), &builder);
  if (!parsed) throw PyError("JSONDecodeError", builder.failure);
  return std::move(builder.result);
}

}  // namespace verdo
