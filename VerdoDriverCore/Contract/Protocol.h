#pragma once

namespace verdo {

/// The protocol between driver and service that this driver speaks.
inline constexpr int DRIVER_PROTOCOL = 2;

/// The driver's version, as the service and the user see it.
inline constexpr const char* DRIVER_VERSION = "2026.09.04";

}  // namespace verdo
