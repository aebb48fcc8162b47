#pragma once

namespace verdo {

/// The environment names a proxy that libcurl follows by itself. Any thread.
bool environmentNamesProxy();

}  // namespace verdo
