#pragma once

#include "VerdoDriver/Model/AppModel.h"
#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriver/UI/Fold.h"

#include <optional>
#include <string>

namespace verdo {

class Button;
class CheckBox;
class Confirm;
class Field;
class Label;
class PairingView;

/// How this computer is connected: the server, the LLM key and the token, and the way to get them.
/// Open while there is something to set up, folded once all is there; in between as the user left
/// it.
class SetupSection : public Fold {
  Q_OBJECT
 public:
  /// `defaultServerURL`: offered until the user has chosen one.
  SetupSection(AppModel& model, const std::string& defaultServerURL, QWidget* parent);

  void refresh();
  /// Opens the section where this is mended, and connects where a click can do that already.
  void lead(Headline::Action action);

 private:
  void build();
  void offer(const std::string& serverURL);
  void refreshServer(bool isBusy);
  void refreshKey(bool isBusy);
  void refreshButtons(bool isBusy);
  void refreshToken(bool isBusy);
  void refreshOpen();
  QString failure() const;
  QString missing() const;
  bool needsConsent() const;
  bool isBusy() const;
  std::string serverURL() const;
  std::string key() const;
  void connectToWebsite();
  void saveKey();
  void submit();

  AppModel& model_;
  const std::string defaultServerURL_;
  std::optional<bool> neededSetup_;
  bool wasBusy_ = false;

  Field* server_;
  CheckBox* insecure_;
  QWidget* keyRow_;
  Field* key_;
  Button* removeKey_;
  PairingView* pairing_;
  Label* checking_;
  Label* failure_;
  Label* missing_;
  QWidget* buttons_;
  Button* connect_;
  Button* saveKey_;
  Button* startOver_;
  QWidget* tokenRow_;
  Label* token_;
  Button* forget_;
  Confirm* confirm_;
};

}  // namespace verdo
