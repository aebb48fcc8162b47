#pragma once

#include <string>
#include <vector>

namespace verdo::test {

/// The test program runs itself again as the child of a job, in one of these roles:
///   flood BYTES       prints that many bytes in 100-byte lines, as fast as it can
///   exit CODE         ends with that code
///   raise SIGNAL      ends by that signal
///   deaf              ignores SIGTERM, prints "ready", and sleeps
///   grandchild ROLE…  starts itself in another role, prints "grandchild PID", and sleeps
///   leave ROLE…       starts itself in another role, prints "grandchild PID", and ends
///   session ROLE…     moves to a session of its own, then plays the role
///   sleep SECONDS     prints "ready" and sleeps
///   regroup ROLE…     moves to its parent's process group, then plays the role
///   closed ROLE…      closes its outputs, then plays the role
///   print OUT ERR N   prints OUT to standard output and ERR to standard error, ends with code N
///   stage CACHE       makes a staging directory, prints its path and "ready", and sleeps
///   swallow FILE      copies standard input to a file that appears once it is complete
///   floodswallow FILE the same, while a second process floods the output
///   environment       prints its environment, a line each
///   signals           prints whether it leads its group, and its blocked and ignored signals
///   descriptors       prints the numbers of its open descriptors, one a line
///   executor FILE     runs scripts like a browser executor (ExecutorRole.h)
///   noinput           never reads its input; prints "ready" and sleeps
int misbehave(const std::vector<std::string>& role);

/// The command line, quoted for a shell-like splitter, that makes this program play a role.
std::string roleCommand(const std::string& role);
/// The program and the argument vector for Spawn.
std::string selfPath();
std::vector<std::string> roleArgv(const std::vector<std::string>& role);

}  // namespace verdo::test
