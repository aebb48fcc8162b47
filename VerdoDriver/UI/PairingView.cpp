#include "VerdoDriver/UI/PairingView.h"

#include "VerdoDriver/Model/Headline.h"
#include "VerdoDriver/UI/Button.h"
#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"

#include <QClipboard>
#include <QFontDatabase>
#include <QGuiApplication>

namespace verdo {
namespace {

constexpr qsizetype kMaxCode = 16;

QFont codeFont(const QFont& text) {
  QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
  font.setPointSizeF(text.pointSizeF() * 1.6);
  font.setWeight(QFont::DemiBold);
  return font;
}

}  // namespace

PairingView::PairingView(AppModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      codeRow_(new QWidget(this)),
      code_(new QLabel(codeRow_)),
      copy_(new Button(Button::Kind::plain, "Copy", codeRow_, [this] { copyCode(); })),
      left_(new Label(Label::Style::fact, Label::Fit::elide, codeRow_)),
      text_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      open_(new Button(Button::Kind::primary, "Open the approve page", this,
                       [this] { model_.openVerifyURL(); })),
      cancel_(new Button(Button::Kind::plain, "Cancel", this, [this] {
        model_.cancelPairing();
        Q_EMIT cancelled();
      })) {
  code_->setTextFormat(Qt::PlainText);
  code_->setFont(codeFont(font()));
  code_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  code_->setFocusPolicy(Qt::StrongFocus);
  copy_->setAccessibleName("Copy the code");
  left_->setColumn(Look::kCaption);

  auto* codeRow = Look::row();
  codeRow_->setLayout(codeRow);
  codeRow->addWidget(code_);
  codeRow->addWidget(copy_);
  codeRow->addStretch();
  codeRow->addWidget(left_);
  auto* buttons = Look::row();
  buttons->addWidget(open_);
  buttons->addWidget(cancel_);
  buttons->addStretch();
  auto* rows = new QVBoxLayout(this);
  rows->setContentsMargins(0, 0, 0, 0);
  rows->setSpacing(Look::kGrid);
  rows->addWidget(codeRow_);
  rows->addWidget(text_);
  rows->addLayout(buttons);
}

void PairingView::refresh() {
  const auto* waiting = std::get_if<PairingWaiting>(&model_.pairing());
  const auto* connecting = std::get_if<PairingConnecting>(&model_.pairing());
  setVisible(model_.isAskingForCode() || waiting || connecting);
  codeRow_->setVisible(waiting != nullptr);
  open_->setVisible(waiting != nullptr);
  if (waiting) {
    const QString code = Look::shown(waiting->userCode, kMaxCode);
    if (code != code_->text()) {
      code_->setText(code);
      code_->setAccessibleName("Code " + code);
      copy_->setText("Copy");
    }
    const int left = secondsUntil(waiting->expiresAt, model_.clock());
    left_->tell(Look::minutes(left, false));
    left_->setAccessibleName(QString("Expires in %1").arg(left_->text()));
    text_->tell(QString("Approve it in your browser, where the same code is shown."));
  } else if (connecting) {
    text_->tell(QString("Checking the connection…"));
  } else {
    text_->tell(QString("Asking the website for a code…"));
  }
}

void PairingView::copyCode() {
  QGuiApplication::clipboard()->setText(code_->text());
  copy_->setText("Copied");
}

}  // namespace verdo
