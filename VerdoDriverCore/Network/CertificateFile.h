#pragma once

#include <string>

namespace verdo {

/// Reads a PEM file and gives the PEM text of every certificate block in it that holds a valid
/// certificate; anything else in the file is skipped. Throws PyError: "OSError" when the file
/// cannot be read, "SSLError" with "no certificate in {path}" when nothing was found.
std::string loadCertificates(const std::string& path);

}  // namespace verdo
