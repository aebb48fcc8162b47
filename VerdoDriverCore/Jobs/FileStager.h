#pragma once

#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Jobs/Job.h"

#include <functional>
#include <string>

namespace verdo::FileStager {

/// Fetches a URL into a file and gives the SHA-256 in lowercase hexadecimal (Api::download). Throws
/// PyError.
using Download = std::function<std::string(const std::string& url, const std::string& destination)>;

/// Downloads the job's files into `directory`, in order, checks them, and gives the payload with
/// every placeholder "__VERDO_FILE__{name}__" of a staged file replaced by the file's path as a
/// string literal. Placeholders are looked for in the payload as it came, from its beginning: a
/// path that is put in is not looked at again, and where several names fit, the longest counts. Of
/// several files with one name the first is meant. `payload` takes the place of the job's own.
/// An exception of `download` ends the staging between two files. Throws PyError: "KeyError" for a
/// file without "url" or "sha256", "ValueError" for a wrong checksum, and what `download` throws.
std::string stage(const Job& job, std::string payload, const Download& download, LogSink& log,
                  const std::string& directory);

/// The name under which a file is stored: letters, digits, ".", "_" and "-" stay, every other
/// character becomes "_"; never empty, "." or "..", and short enough for any file system.
std::string safeName(const std::string& name);

}  // namespace verdo::FileStager
