#include "VerdoDriver/Model/SettingsStore.h"
#include "fuzz/Targets.h"

#include <QDir>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <fstream>
#include <memory>
#include <string>

namespace verdo::fuzz {
namespace {

/// A file with these bytes, in a folder of its own: the library remembers what it read under a
/// name.
class File {
 public:
  explicit File(std::string_view bytes) {
    static const QTemporaryDir directory;
    static int count = 0;
    folder_ = QDir(directory.filePath(QString::number(++count)));
    folder_.mkpath(".");
    path_ = folder_.filePath("settings.ini").toStdString();
    std::ofstream(path_, std::ios::binary) << bytes;
  }
  std::unique_ptr<QSettings> opened() const {
    return std::make_unique<QSettings>(QString::fromStdString(path_), QSettings::IniFormat);
  }
  bool exists() const { return folder_.exists(); }

 private:
  QDir folder_;
  std::string path_;
};

void forget(const File& file) {
  SettingsStore store(file.opened());
  require(store.forgetAll(), "all can be forgotten");
  require(!file.exists(), "nothing is left of it");
}

}  // namespace

void settings(std::string_view bytes) {
  const File file(bytes);
  {
    SettingsStore store(file.opened());
    const std::string server = store.serverURL();
    const bool isAllowed = store.allowInsecure();
    const auto place = store.secretPlace();
    store.setAutoStart(!store.autoStart());
    require(store.isWritable(), "what is written is known to be");
    store.setServerURL(server);
    if (place) store.setSecretPlace(*place);
    const SettingsStore again(file.opened());
    require(again.autoStart() == store.autoStart(), "a choice stays");
    require(again.serverURL() == server, "the server stays");
    require(again.allowInsecure() == isAllowed, "what was not chosen stays");
    require(again.secretPlace() == place, "the place of the secrets stays");
  }
  forget(file);
  forget(File(bytes));
}

}  // namespace verdo::fuzz
