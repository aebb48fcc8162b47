#include "VerdoDriver/Model/Semver.h"

#include <QString>
#include <QStringList>
#include <charconv>
#include <system_error>
#include <tuple>

namespace verdo {
namespace {

std::optional<std::int64_t> number(const std::string& digits) {
  std::int64_t value = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stopped, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return value;
}

}  // namespace

std::optional<Semver> Semver::parse(const std::string& text) {
  const QString trimmed = QString::fromStdString(text).trimmed();
  const auto pieces = trimmed.section('-', 0, 0).split('.');
  if (pieces.size() != 3) return std::nullopt;
  const auto major = number(pieces[0].toStdString());
  const auto minor = number(pieces[1].toStdString());
  const auto patch = number(pieces[2].toStdString());
  if (!major || !minor || !patch) return std::nullopt;
  Semver version{*major, *minor, *patch, std::nullopt};
  if (const auto rest = trimmed.section('-', 1); !rest.isEmpty()) {
    version.prerelease = rest.toStdString();
  }
  return version;
}

std::strong_ordering Semver::operator<=>(const Semver& other) const {
  const auto numbers =
      std::tie(major, minor, patch) <=> std::tie(other.major, other.minor, other.patch);
  if (numbers != 0) return numbers;
  if (!prerelease || !other.prerelease) return !prerelease <=> !other.prerelease;
  return *prerelease <=> *other.prerelease;
}

}  // namespace verdo
