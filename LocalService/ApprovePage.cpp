#include "LocalService/ApprovePage.h"

#include <array>

#include <openssl/evp.h>

namespace verdo::local {
namespace {

// Texts keep a contrast of 4.5 and more to what is behind them, in both schemes.
constexpr std::string_view kStyle = R"css(
:root {
  color-scheme: light dark;
  --page: #eef1f5; --card: #ffffff; --line: #d5dbe3; --text: #1b2430; --quiet: #55606f;
  --accent: #1d5fbf; --accent-over: #174d9c; --on-accent: #ffffff; --code: #f3f6fa;
  --good: #1a7f4b; --bad: #b3372f; --other: #8a5a00;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #12161c; --card: #1c222b; --line: #343d4a; --text: #e9edf3; --quiet: #a7b2c1;
    --accent: #8ab8ff; --accent-over: #a9cbff; --on-accent: #0b1d36; --code: #141920;
    --good: #6fd39c; --bad: #ff9d94; --other: #f0c067;
  }
}
* { box-sizing: border-box; }
body {
  margin: 0; min-height: 100vh; padding: 1.5rem 1rem; display: grid; place-items: center;
  background: var(--page); color: var(--text);
  font: 1rem/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif;
}
main {
  width: 100%; max-width: 28rem; padding: 2rem; background: var(--card);
  border: 1px solid var(--line); border-radius: 0.875rem;
}
p { margin: 0 0 1.25rem; overflow-wrap: anywhere; }
h1 { margin: 0 0 0.75rem; font-size: 1.5rem; line-height: 1.25; overflow-wrap: anywhere; }
.from { margin-bottom: 0.5rem; color: var(--quiet); font-size: 0.875rem; font-weight: 600; }
.code {
  padding: 0.875rem 0.5rem; background: var(--code); border: 1px solid var(--line);
  border-radius: 0.625rem; text-align: center; white-space: nowrap;
  font: 600 clamp(1.5rem, 9vw, 2.25rem)/1.2 ui-monospace, "DejaVu Sans Mono", Menlo, monospace;
  letter-spacing: 0.08em; user-select: all;
}
.label { margin-bottom: 0.5rem; }
.quiet { color: var(--quiet); }
@media (max-width: 26rem) {
  body { padding: 0.75rem; }
  main { padding: 1.25rem; }
}
form { display: flex; flex-wrap: wrap; gap: 0.75rem; }
button {
  flex: 1 1 8rem; min-height: 3rem; padding: 0.5rem 1rem; font: inherit; font-weight: 600;
  color: var(--text); background: transparent; border: 1px solid var(--quiet);
  border-radius: 0.625rem; cursor: pointer;
}
button:hover { background: var(--code); }
button.main { color: var(--on-accent); background: var(--accent); border-color: var(--accent); }
button.main:hover { background: var(--accent-over); }
a { color: var(--accent); }
:focus-visible { outline: 3px solid var(--accent); outline-offset: 3px; }
svg { display: block; width: 2.75rem; height: 2.75rem; margin: 1rem 0; }
.good { color: var(--good); }
.bad { color: var(--bad); }
.other { color: var(--other); }
:last-child { margin-bottom: 0; }
)css";

// Strokes inside of a circle of 24 units.
constexpr std::string_view kCheck = "M7.5 12.5l3 3 6-7";
constexpr std::string_view kCross = "M8.5 8.5l7 7m0-7l-7 7";
constexpr std::string_view kClock = "M12 7v5l3 2.5";
constexpr std::string_view kExclamation = "M12 7v6m0 3.2v.3";

std::string escaped(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      case '\'':
        safe += "&#39;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

/// Isolated, so that a name with a direction of its own does not turn the text around it.
std::string computer(std::string_view host) {
  return host.empty() ? "a computer without a name"
                      : "<strong><bdi>" + escaped(host) + "</bdi></strong>";
}

/// `title` and `content` are HTML.
std::string document(std::string_view title, std::string_view content) {
  std::string page = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>)";
  page.append(title).append(" · Verdo Driver</title>\n<style>").append(kStyle);
  page.append("</style>\n</head>\n<body>\n<main>\n<p class=\"from\">Verdo Driver</p>\n");
  return page.append(content).append("\n</main>\n</body>\n</html>\n");
}

std::string notice(std::string_view kind, std::string_view strokes, std::string_view heading,
                   const std::string& text) {
  std::string content = "<svg class=\"";
  content.append(kind).append(
      R"(" viewBox="0 0 24 24" fill="none" stroke="currentColor" stroke-width="1.75" )"
      R"(stroke-linecap="round" stroke-linejoin="round" aria-hidden="true">)"
      R"(<circle cx="12" cy="12" r="10.5"/><path d=")");
  content.append(strokes).append("\"/></svg>\n<h1>").append(heading).append("</h1>\n<p>");
  return document(heading, content.append(text).append("</p>"));
}

std::string base64Sha256(std::string_view text) {
  std::array<unsigned char, 32> sum{};
  EVP_Digest(text.data(), text.size(), sum.data(), nullptr, EVP_sha256(), nullptr);
  std::array<unsigned char, 45> base64{};  // 44 signs and the end
  EVP_EncodeBlock(base64.data(), sum.data(), sum.size());
  return reinterpret_cast<const char*>(base64.data());
}

}  // namespace

std::string requestPage(const ApproveRequest& request) {
  std::string content = "<h1>Connect this computer?</h1>\n<p>";
  content += "The app on " + computer(request.host) +
             " asks to work for your account <strong><bdi>" + escaped(request.username) +
             "</bdi></strong>.</p>\n";
  content += "<p class=\"label\">Check that the app shows this code:</p>\n";
  content += "<p class=\"code\">" + escaped(request.userCode) + "</p>\n";
  content +=
      "<p class=\"quiet\">If you approve, that computer gets a token and runs the jobs of your "
      "account until the token is revoked.</p>\n";
  content += "<form method=\"post\">\n<input type=\"hidden\" name=\"nonce\" value=\"" +
             escaped(request.nonce) + "\">\n";
  content +=
      "<button class=\"main\" name=\"decision\" value=\"approve\">Approve</button>\n"
      "<button name=\"decision\" value=\"deny\">Deny</button>\n</form>";
  return document("Connect this computer?", content);
}

std::string noticePage(Notice kind, std::string_view host) {
  switch (kind) {
    case Notice::approved:
      return notice("good", kCheck, "Approved",
                    "The app on " + computer(host) +
                        " will be connected in a moment. You can close this page.");
    case Notice::denied:
      return notice("bad", kCross, "Denied",
                    "The app on " + computer(host) + " gets no access. You can close this page.");
    case Notice::alreadyApproved:
      return notice("good", kCheck, "Already approved",
                    "The request of " + computer(host) +
                        " was approved before. If that was not you, revoke the driver token of "
                        "your account.");
    case Notice::alreadyDenied:
      return notice("bad", kCross, "Already denied",
                    "The request of " + computer(host) +
                        " was denied before. To connect it after all, press "
                        "<strong>Connect to website</strong> in the app again.");
    case Notice::expired:
      return notice("other", kClock, "Expired",
                    "Nobody decided on the request of " + computer(host) +
                        " in time. Press <strong>Connect to website</strong> in the app again.");
    case Notice::undecided:
      return notice("other", kExclamation, "Nothing was decided",
                    "The answer did not come from this page. <a href=\"\">Open the request "
                    "again</a> and decide there.");
    case Notice::unknown:
      break;
  }
  return notice("other", kExclamation, "No such request",
                "There is no request at this address. Press <strong>Connect to website</strong> "
                "in the app to begin a new one.");
}

const std::string& approvePagePolicy() {
  static const auto policy = "default-src 'none'; style-src 'sha256-" + base64Sha256(kStyle) +
                             "'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'";
  return policy;
}

}  // namespace verdo::local
