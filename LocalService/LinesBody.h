#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace verdo::local {

/// The lines of one post. A plain value.
struct LinesBatch {
  std::string text;               ///< every line followed by "\n"
  std::vector<std::size_t> ends;  ///< offset in `text` just behind each line's "\n"
};

/// Reads {"lines": ["…", …]}, further keys ignored. Throws HttpError 400 when the text is not that.
/// Works in one pass without building a tree, for bodies of many megabytes.
LinesBatch parseLinesBody(std::string_view body);

}  // namespace verdo::local
