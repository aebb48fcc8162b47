#pragma once

namespace verdo {

/// A window could be shown. To be asked before the application object is made, which ends the
/// program without one.
bool hasDisplay();

}  // namespace verdo
