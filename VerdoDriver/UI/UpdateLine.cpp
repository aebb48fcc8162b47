#include "VerdoDriver/UI/UpdateLine.h"

#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

namespace verdo {

UpdateLine::UpdateLine(AppModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      text_(new Label(Label::Style::text, Label::Fit::elide, this)),
      download_(new Button(Button::Kind::plain, "Download", this,
                           [this] { model_.releases().openDownload(); })) {
  auto* layout = Look::row();
  setLayout(layout);
  layout->setContentsMargins(Look::kMargin, Look::kGrid, Look::kMargin, Look::kGrid);
  layout->addWidget(text_, 1);
  layout->addWidget(download_);
}

void UpdateLine::refresh() {
  // What was installed is the newest, for all that is known until it runs.
  const bool isNews = model_.releases().updateAvailable() && !model_.releases().restartDue();
  setVisible(isNews);
  if (!isNews) return;
  const auto& manifest = model_.releases().manifest();
  const QString version = manifest && manifest->appVersion
                              ? "Version " + Look::shown(*manifest->appVersion, 24)
                              : QString("A new version");
  text_->tell(version + " is available");
  download_->setVisible(model_.releases().downloadURL().has_value());
}

}  // namespace verdo
