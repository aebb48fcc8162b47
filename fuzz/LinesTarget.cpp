#include "VerdoDriverCore/Network/LineBatch.h"
#include "VerdoDriverCore/Process/LineReader.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/Utf8.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace verdo::fuzz {
namespace {

using Lines = std::vector<std::string>;

/// The stream's lines, read by somebody with room for all of it.
Lines model(std::string_view stream) {
  Lines lines;
  for (std::size_t end = 0; (end = stream.find('\n')) != stream.npos;) {
    const bool isReturn = end > 0 && stream[end - 1] == '\r';
    lines.emplace_back(stream.substr(0, end - (isReturn ? 1 : 0)));
    stream.remove_prefix(end + 1);
  }
  if (!stream.empty()) lines.emplace_back(stream);
  return lines;
}

std::string joined(const Lines& lines) {
  std::string all;
  for (const auto& line : lines) all += line;
  return all;
}

std::string repaired(const Lines& lines) {
  std::string all;
  for (const auto& line : lines) all += repairUtf8(line);
  return all;
}

Lines repairedEach(Lines lines) {
  std::transform(lines.begin(), lines.end(), lines.begin(),
                 [](const std::string& line) { return repairUtf8(line); });
  return lines;
}

/// What comes out when the stream arrives in chunks: the sizes are `sizes`, in turn.
Lines splitUp(std::string_view stream, std::string_view sizes, std::size_t maxLine) {
  LineSplitter splitter(maxLine);
  Lines lines;
  for (std::size_t turn = 0; !stream.empty(); ++turn) {
    const std::size_t size =
        std::size_t{1} + static_cast<unsigned char>(sizes[turn % sizes.size()]);
    const auto chunk = stream.substr(0, size);
    stream.remove_prefix(chunk.size());
    const auto room = splitter.space(chunk.size());
    require(room.size() >= chunk.size(), "there is as much room as was asked for");
    std::memcpy(room.data(), chunk.data(), chunk.size());
    for (const auto line : splitter.advance(chunk.size())) lines.emplace_back(line);
    require(splitter.rest().size() < maxLine, "an endless line does not pile up");
  }
  if (!splitter.rest().empty()) lines.emplace_back(splitter.rest());
  return lines;
}

/// The lines of a body, as the service reads them.
Lines linesOf(std::string_view body) {
  Lines lines;
  const JV value = parseJson(body);
  const JV* list = value.find("lines");
  require(list && list->asArray(), "a body has lines");
  for (const JV& line : *list->asArray()) {
    require(line.asString() != nullptr, "a line is a text");
    lines.push_back(*line.asString());
  }
  return lines;
}

void checkSplit(std::string_view body, const Lines& lines, std::size_t maxBytes, bool cutLines) {
  constexpr std::size_t kFrame = std::string_view(R"({"lines": [""]})").size();
  Lines again;
  for (auto& batch : LineBatch::split(body, maxBytes, cutLines)) {
    const bool isEmpty = batch.empty();
    const ByteBuffer part = std::move(batch).finish();
    const Lines some = linesOf(part.view());
    require(isEmpty == some.empty(), "a batch knows whether it is empty");
    require(part.size() <= maxBytes || some.size() == 1 || lines.empty(),
            "only a single line is too long");
    require(!cutLines || part.size() <= std::max(maxBytes, 2 * kFrame) || lines.empty(),
            "no line is too long that may be cut");
    again.insert(again.end(), some.begin(), some.end());
  }
  require(joined(again) == joined(lines), "no text is lost");
  if (!cutLines) require(again == lines, "lines stay whole");
}

}  // namespace

/// The first line has the limits (two bytes) and the sizes of the chunks, the rest is the stream.
void lines(std::string_view bytes) {
  const std::string_view head = takeLine(bytes);
  if (head.size() < 3) return;
  const std::string_view sizes = head.substr(2);
  const auto maxLine = 5 + static_cast<std::size_t>(static_cast<unsigned char>(head[0]));
  const auto maxBytes = static_cast<std::size_t>(static_cast<unsigned char>(head[1]));

  const Lines expected = model(bytes);
  require(splitUp(bytes, sizes, bytes.size() + maxLine) == expected, "chunks make no difference");
  const Lines pieces = splitUp(bytes, sizes, maxLine);
  require(joined(pieces) == joined(expected), "a cut line loses nothing");
  require(repaired(pieces) == repaired(expected), "no character is cut");

  LineBatch batch;
  for (const auto& line : pieces) {
    const std::size_t before = batch.bytes();
    const bool wasEmpty = batch.empty();
    batch.add(line);
    batch.truncate(before);
    require(batch.bytes() == before && batch.empty() == wasEmpty, "a line can be taken back");
    batch.add(line);
  }
  const std::size_t size = batch.bytes();
  const ByteBuffer body = std::move(batch).finish();
  require(body.size() == size, "a batch knows its length");
  const Lines posted = repairedEach(pieces);
  require(linesOf(body.view()) == posted, "what is posted are the lines");
  checkSplit(body.view(), posted, maxBytes, false);
  checkSplit(body.view(), posted, maxBytes, true);
}

}  // namespace verdo::fuzz
