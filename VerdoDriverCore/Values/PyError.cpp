#include "VerdoDriverCore/Values/PyError.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <typeinfo>

#include <cxxabi.h>
#include <fmt/format.h>

namespace verdo {

std::string pyTypeName(const std::exception& error) {
  if (const auto* own = dynamic_cast<const Error*>(&error)) return own->pyName();
  const char* mangled = typeid(error).name();
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  const std::string name = status == 0 ? demangled.get() : mangled;
  const auto qualifier = name.rfind("::");
  return qualifier == std::string::npos ? name : name.substr(qualifier + 2);
}

std::string pyDescribe(const std::exception& error) {
  return fmt::format("{}: {}", pyTypeName(error), error.what());
}

std::string pyErrnoText(int code, std::string_view path) {
  return fmt::format("[Errno {}] {}: '{}'", code, std::generic_category().message(code), path);
}

void failWithErrno(std::string_view path) { throw PyError("OSError", pyErrnoText(errno, path)); }

}  // namespace verdo
