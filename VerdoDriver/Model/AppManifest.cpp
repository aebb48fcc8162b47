#include "VerdoDriver/Model/AppManifest.h"

#include "VerdoDriver/Model/ReplyReader.h"

namespace verdo {

tl::expected<AppManifest, std::string> AppManifest::decode(const std::string& json) {
  ReplyReader reply(json);
  AppManifest manifest;
  manifest.appVersion = reply.optionalText("app_version");
  manifest.dmgURL = reply.optionalText("dmg_url");
  manifest.protocolVersion = reply.optionalInteger("protocol");
  manifest.driverVersion = reply.optionalText("driver_version");
  manifest.egoInstallURL = reply.optionalText("ego_install_url");
  if (!reply.mismatch().empty()) return tl::make_unexpected(reply.mismatch());
  return manifest;
}

}  // namespace verdo
