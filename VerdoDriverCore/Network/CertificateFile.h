#pragma once

#include <string>

namespace verdo {

/// Reads a PEM file and gives the PEM text of every certificate block in it that holds a valid
/// certificate; anything else in the file is skipped. Throws PyError: "OSError" when the file
/// cannot be read, "SSLError" with "no certificate in {path}" when nothing was found.
std::string loadCertificates(const std::string& path);

/// The same behind the system's roots, as libcurl finds them by itself: as PEM text, too.
std::string loadCertificatesBesideRoots(const std::string& path);

}  // namespace verdo
