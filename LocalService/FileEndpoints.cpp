#include "LocalService/FileEndpoints.h"

namespace verdo::local {
namespace {

constexpr std::string_view kFilesPrefix = "/files/";

}  // namespace

std::optional<Route> FileEndpoints::match(std::string_view method, std::string_view path) {
  if (method != "GET" || !path.starts_with(kFilesPrefix)) return std::nullopt;
  return Route{.endpoint = "files", .jobId = {}, .handle = [this](Exchange& exchange) {
                 download(exchange);
               }};
}

void FileEndpoints::download(Exchange& exchange) const {
  const auto name = exchange.path.substr(kFilesPrefix.size());
  const auto file = files_.find(name);
  if (!file) throw HttpError(404, "there is no file \"" + name + "\"");
  if (file->redirect) {
    exchange.response.status = 302;
    exchange.response.headers.emplace("Location", *file->redirect);
    return;
  }
  exchange.response.status = file->status;
  exchange.response.set_content(file->content, "application/octet-stream");
  exchange.truncateAfter = file->truncateAfter;
}

}  // namespace verdo::local
