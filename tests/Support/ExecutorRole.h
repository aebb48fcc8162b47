#pragma once

#include <string>

namespace verdo::test {

/// The test program as browser executor: reads a script from standard input and does what a real
/// one would. Its task spaces are the lines of `stateFile`.
///
/// The driver's own scripts list and close those spaces; each close adds a line to
/// `stateFile` + ".closed". A job's script is one line that names a role of Misbehaviour.h with its
/// arguments, or one of:
///   say WORD…    prints each word on a line of its own
///   number N     prints N numbered lines of 100 bytes (numberedLine()), as fast as it can
///   long BYTES   prints one line of that length
///   wait FILE N  prints "ready", waits until the file exists, then does as "number N" (or ends)
///   cat FILE     prints the file's content
int executeScript(const std::string& stateFile);

/// Line `index` of the role "number", without its line end.
std::string numberedLine(int index);

}  // namespace verdo::test
