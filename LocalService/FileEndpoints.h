#pragma once

#include "LocalService/FileStore.h"
#include "LocalService/Routes.h"

namespace verdo::local {

/// GET /files/…: no token is asked for, because the driver sends none with downloads.
class FileEndpoints final : public RouteGroup {
 public:
  explicit FileEndpoints(FileStore& files) : files_(files) {}
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  void download(Exchange& exchange) const;

  FileStore& files_;
};

}  // namespace verdo::local
