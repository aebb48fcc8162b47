#include "LocalService/LinesBody.h"

#include "LocalService/Routes.h"

#include <nlohmann/json.hpp>

namespace verdo::local {
namespace {

constexpr const char* kWanted = R"(the body must be an object {"lines": ["text", …]})";

/// Everything in the value of "lines" must be a text; everything outside of it is skipped.
class LinesReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit LinesReader(LinesBatch& batch) : batch_(batch) {}

  bool found() const { return found_; }
  const std::string& problem() const { return problem_; }

  bool null() override { return other(); }
  bool boolean(bool) override { return other(); }
  bool number_integer(number_integer_t) override { return other(); }
  bool number_unsigned(number_unsigned_t) override { return other(); }
  bool number_float(number_float_t, const string_t&) override { return other(); }
  bool binary(binary_t&) override { return other(); }
  bool string(string_t& value) override {
    if (!inLines_) return other();
    batch_.text += value;
    batch_.text += '\n';
    batch_.ends.push_back(batch_.text.size());
    return true;
  }
  bool key(string_t& name) override {
    linesAhead_ = depth_ == 1 && name == "lines";
    return true;
  }
  bool start_object(std::size_t) override {
    if (depth_ > 0 && !other()) return false;
    ++depth_;
    return true;
  }
  bool end_object() override {
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    if (linesAhead_ && !found_) {
      inLines_ = found_ = true;
      linesAhead_ = false;
    } else if (!other()) {
      return false;
    }
    ++depth_;
    return true;
  }
  bool end_array() override {
    --depth_;
    inLines_ = inLines_ && depth_ > 1;
    return true;
  }
  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::detail::exception& error) override {
    problem_ = std::string("the body is not valid JSON: ") + error.what();
    return false;
  }

 private:
  bool other() {
    if (depth_ > 0 && !inLines_ && !linesAhead_) return true;
    problem_ = kWanted;
    return false;
  }

  LinesBatch& batch_;
  std::size_t depth_ = 0;
  bool linesAhead_ = false;  // the value that follows is that of "lines"
  bool inLines_ = false;
  bool found_ = false;
  std::string problem_;
};

}  // namespace

LinesBatch parseLinesBody(std::string_view body) {
  LinesBatch batch;
  batch.text.reserve(body.size());
  LinesReader reader(batch);
  if (!nlohmann::json::sax_parse(body.data(), body.data() + body.size(), &reader)) {
    throw HttpError(400, reader.problem());
  }
  if (!reader.found()) throw HttpError(400, kWanted);
  return batch;
}

}  // namespace verdo::local
