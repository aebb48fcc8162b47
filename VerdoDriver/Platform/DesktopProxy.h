#pragma once

#include <string>

namespace verdo {

/// The proxy that the desktop's settings name for this URL, as libcurl takes it
/// ("http://proxy.example:3128"); empty: none, or the environment names one, which libcurl follows
/// by itself. Blocks for up to 5 s, since a desktop may have to run a script for the answer. Any
/// thread.
std::string desktopProxyFor(const std::string& url);

}  // namespace verdo
