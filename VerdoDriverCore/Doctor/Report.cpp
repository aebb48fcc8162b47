#include "VerdoDriverCore/Doctor/Report.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Protocol.h"
#include "VerdoDriverCore/Contract/SecretScrub.h"
#include "VerdoDriverCore/Doctor/Doctor.h"
#include "VerdoDriverCore/Values/Url.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cstdlib>

#include <fmt/format.h>
#include <sys/utsname.h>

namespace verdo {
namespace {

/// Below the reasons, behind sign, verdict and check.
constexpr const char* kIndent = "                            ";

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
  if (what.empty()) return;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
}

/// Puts "(host)" in place of the host, and whatever else is there, of every URL that does not lead
/// to the server.
std::string withoutOtherHosts(const std::string& text, const std::string& server) {
  constexpr std::string_view kScheme = "://";
  const auto home = Url::parse(server);
  std::string out;
  std::size_t done = 0;
  for (auto at = text.find(kScheme); at != std::string::npos; at = text.find(kScheme, done)) {
    const auto begin = text.find_last_of(" \n\"'(=", at);
    const auto first = begin == std::string::npos ? 0 : begin + 1;
    const auto last = std::min(text.find_first_of(" \n\"')", at), text.size());
    const auto url = Url::parse(std::string_view(text).substr(first, last - first));
    const bool isServer = url && home && sameOrigin(*url, *home);
    out += text.substr(done, at + kScheme.size() - done);
    out += isServer ? text.substr(at + kScheme.size(), last - at - kScheme.size()) : "(host)";
    done = last;
  }
  return out + text.substr(done);
}

/// As the log colours its signs.
int colorOf(Finding::Verdict verdict) {
  switch (verdict) {
    case Finding::Verdict::ok:
      return 32;
    case Finding::Verdict::warning:
      return 33;
    case Finding::Verdict::failed:
      return 31;
    case Finding::Verdict::skipped:
      break;
  }
  return 36;
}

std::string systemName() {
  utsname name{};
  if (::uname(&name) != 0) return "an unknown system";
  return fmt::format("{} {} {}", name.sysname, name.release, name.machine);
}

}  // namespace

const char* nameOf(Finding::Verdict verdict) {
  switch (verdict) {
    case Finding::Verdict::ok:
      return "ok";
    case Finding::Verdict::warning:
      return "warning";
    case Finding::Verdict::failed:
      return "failed";
    case Finding::Verdict::skipped:
      break;
  }
  return "skipped";
}

const char* signOf(Finding::Verdict verdict) {
  switch (verdict) {
    case Finding::Verdict::ok:
      return "✓";
    case Finding::Verdict::warning:
      return "!";
    case Finding::Verdict::failed:
      return "✗";
    case Finding::Verdict::skipped:
      break;
  }
  return "–";
}

std::string textOf(const Finding& finding, bool color) {
  const std::string sign = signOf(finding.verdict);
  std::string text =
      fmt::format("{} {:<8} {:<16} {}\n",
                  color ? fmt::format("\x1b[{}m{}\x1b[0m", colorOf(finding.verdict), sign) : sign,
                  nameOf(finding.verdict), finding.check, forLog(finding.reason));
  if (!finding.detail.empty()) text += fmt::format("{}({})\n", kIndent, forLog(finding.detail));
  if (!finding.remedy.empty()) text += fmt::format("{}→ {}\n", kIndent, forLog(finding.remedy));
  return text;
}

JV jsonOf(const std::vector<Finding>& findings) {
  JV::Array checks;
  for (const auto& finding : findings) {
    checks.emplace_back(JV::Object{{"check", finding.check},
                                   {"result", nameOf(finding.verdict)},
                                   {"reason", finding.reason},
                                   {"detail", finding.detail},
                                   {"remedy", finding.remedy}});
  }
  return JV::Object{{"healthy", Doctor::isHealthy(findings)},
                    {"version", DRIVER_VERSION},
                    {"checks", std::move(checks)}};
}

std::string reportOf(const std::vector<Finding>& findings, const DriverConfig& config) {
  const auto server = Url::parse(config.server);
  std::string text = fmt::format("verdo-driver {}, {}\nserver: {}\n", DRIVER_VERSION, systemName(),
                                 server ? server->host() : "not known");
  for (Finding finding : findings) {
    finding.detail.clear();
    text += textOf(finding);
  }
  text = SecretScrub{config.token, config.llmKey}.scrubbed(text);
  const std::string home = DriverConstants::expandTilde("~");
  if (home != "/") replaceAll(text, home, "~");
  return withoutOtherHosts(text, config.server);
}

}  // namespace verdo
