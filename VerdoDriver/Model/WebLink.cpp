#include "VerdoDriver/Model/WebLink.h"

#include <QString>

namespace verdo::WebLink {

std::optional<QUrl> parse(const std::string& text) {
  QUrl url(QString::fromStdString(text), QUrl::StrictMode);
  if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return std::nullopt;
  return url;
}

bool sameOrigin(const QUrl& a, const QUrl& b) {
  return a.scheme() == b.scheme() && a.host() == b.host() && a.port() == b.port() &&
         a.userInfo() == b.userInfo();
}

std::optional<std::string> onServer(const std::string& server, const std::string& path) {
  const auto origin = parse(server);
  const auto url = parse(server + path);
  if (!origin || !url || !sameOrigin(*origin, *url)) return std::nullopt;
  if (url->scheme() != "https" && url->scheme() != "http") return std::nullopt;
  return url->toEncoded().toStdString();
}

}  // namespace verdo::WebLink
