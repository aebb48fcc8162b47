#include "VerdoDriverCore/Process/Spawn.h"

#include "VerdoDriverCore/Process/SpawnPlatform.h"
#include "VerdoDriverCore/System/Pipe.h"

#include <system_error>

#include <signal.h>
#include <spawn.h>
#include <unistd.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): not declared on macOS

namespace verdo {

Environment currentEnvironment() {
  Environment result;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view text = *entry;
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    result.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return result;
}

namespace Spawn {
namespace {

/// posix_spawn's two argument objects, initialised and destroyed together.
class SpawnArguments {
 public:
  explicit SpawnArguments(const std::string& path) : path_(path) {
    check(::posix_spawn_file_actions_init(&actions));
    if (const int code = ::posix_spawnattr_init(&attributes)) {
      ::posix_spawn_file_actions_destroy(&actions);
      throw Error(code, path_);
    }
  }
  ~SpawnArguments() {
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  SpawnArguments(const SpawnArguments&) = delete;
  SpawnArguments& operator=(const SpawnArguments&) = delete;

  void check(int code) const {
    if (code != 0) throw Error(code, path_);
  }

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;

 private:
  const std::string& path_;
};

void connect(SpawnArguments& arguments, const UniqueFd& end, int descriptor) {
  arguments.check(::posix_spawn_file_actions_adddup2(&arguments.actions, end.get(), descriptor));
}

void setAttributes(SpawnArguments& arguments) {
  sigset_t all;
  sigset_t none;
  ::sigfillset(&all);
  ::sigemptyset(&none);
  short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  arguments.check(inheritOnlyStandardDescriptors(arguments.actions, flags));
  arguments.check(::posix_spawnattr_setsigdefault(&arguments.attributes, &all));
  arguments.check(::posix_spawnattr_setsigmask(&arguments.attributes, &none));
  arguments.check(::posix_spawnattr_setpgroup(&arguments.attributes, 0));
  arguments.check(::posix_spawnattr_setflags(&arguments.attributes, flags));
}

/// The texts as the null-terminated array of pointers that exec takes. They are not written to.
std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (const auto& text : texts) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

Pipe makePipe(const std::string& path) try {
  return Pipe::make();
} catch (const std::system_error& error) {
  throw Error(error.code().value(), path);
}

}  // namespace

std::unique_ptr<ChildProcess> launch(const std::string& path, const std::vector<std::string>& argv,
                                     const Environment& env, bool mergeStderr) {
  Pipe input = makePipe(path);
  Pipe output = makePipe(path);
  Pipe errors;
  if (!mergeStderr) errors = makePipe(path);

  SpawnArguments arguments(path);
  connect(arguments, input.readEnd, STDIN_FILENO);
  connect(arguments, output.writeEnd, STDOUT_FILENO);
  connect(arguments, mergeStderr ? output.writeEnd : errors.writeEnd, STDERR_FILENO);
  setAttributes(arguments);

  std::vector<std::string> variables;
  variables.reserve(env.size());
  for (const auto& [key, value] : env) variables.push_back(key + "=" + value);

  pid_t pid = 0;
  arguments.check(::posix_spawn(&pid, path.c_str(), &arguments.actions, &arguments.attributes,
                                pointers(argv).data(), pointers(variables).data()));
  return std::make_unique<ChildProcess>(pid, std::move(input.writeEnd), std::move(output.readEnd),
                                        std::move(errors.readEnd));
}

}  // namespace Spawn
}  // namespace verdo
