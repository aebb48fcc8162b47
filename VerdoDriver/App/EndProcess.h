#pragma once

#include <string>

class QSettings;

namespace verdo {

class FileLog;

/// Ends the program with this exit status, at once, once the log's lines and the settings' changes
/// are on disk (for the log, a disk that does not answer is waited for 2 s). `settings` may be any
/// instance of nativeSettings(), since all of one process share their changes. To be called on the
/// main thread when its event loop has returned; main() never returns itself: the static
/// destructors of the libraries would run under the threads of a driver, or of a call to the
/// keyring, that is still at work, and crash them.
[[noreturn]] void endProcess(int status, FileLog& log, QSettings& settings);

/// The same, but the program at this path goes on in the place of this one, in the same process and
/// with its window open. Where it cannot be started, the program ends with status 1.
[[noreturn]] void restartProcess(const std::string& program, FileLog& log, QSettings& settings);

}  // namespace verdo
