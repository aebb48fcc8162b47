#include "VerdoDriverCore/Network/JsonBody.h"

#include "VerdoDriverCore/System/ByteBuffer.h"
#include "VerdoDriverCore/Values/JsonEscape.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace verdo {
namespace {

/// One walk through the parts.
class PartsReader {
 public:
  explicit PartsReader(const std::vector<PyJSON::Part>& parts) : parts_(parts) {
    if (parts.size() > 1) buffer_.room(kJsonExpansion * kJsonPiece + kJsonSlack);
  }

  /// The next bytes, valid until the next call; empty at the end.
  std::string_view next() {
    while (!unescaped_.empty() || at_ < parts_.size()) {
      if (unescaped_.empty()) {
        const PyJSON::Part& part = parts_[at_++];
        unescaped_ = part.unescaped;
        if (!part.text.empty()) return part.text;
      } else {
        const std::string_view piece = firstJsonPiece(unescaped_);
        unescaped_.remove_prefix(piece.size());
        buffer_.clear();
        buffer_.commit(escapeJson(piece, buffer_.room(kJsonExpansion * kJsonPiece + kJsonSlack)));
        return buffer_.view();
      }
    }
    return {};
  }

  std::size_t read(char* out, std::size_t room) {
    if (left_.empty()) left_ = next();
    const std::size_t size = std::min(room, left_.size());
    if (size > 0) std::memcpy(out, left_.data(), size);
    left_.remove_prefix(size);
    return size;
  }

 private:
  const std::vector<PyJSON::Part>& parts_;
  std::size_t at_ = 0;
  std::string_view unescaped_;
  ByteBuffer buffer_;
  std::string_view left_;
};

}  // namespace

JsonBody::JsonBody(JV value) : value_(std::move(value)), parts_(PyJSON::parts(value_)) {
  PartsReader reader(parts_);
  for (auto bytes = reader.next(); !bytes.empty(); bytes = reader.next()) size_ += bytes.size();
}

HttpBodySource::Read JsonBody::open() const {
  return [reader = std::make_shared<PartsReader>(parts_)](char* out, std::size_t room) {
    return reader->read(out, room);
  };
}

}  // namespace verdo
