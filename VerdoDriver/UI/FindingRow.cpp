#include "VerdoDriver/UI/FindingRow.h"

#include "VerdoDriver/UI/Label.h"
#include "VerdoDriver/UI/Look.h"
#include "VerdoDriverCore/Doctor/Report.h"

namespace verdo {
namespace {

/// With which the reasons of all checks begin at the same place.
constexpr const char* kLongestName = "name resolution ";

}  // namespace

FindingRow::FindingRow(QWidget* parent)
    : QWidget(parent),
      sign_(new Label(Label::Style::text, Label::Fit::elide, this)),
      name_(new Label(Label::Style::text, Label::Fit::elide, this)),
      fact_(new Label(Label::Style::fact, Label::Fit::elide, this)),
      reason_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      remedy_(new Label(Label::Style::text, Label::Fit::wrap, this)),
      detail_(new Label(Label::Style::fact, Label::Fit::wrap, this)) {
  sign_->setColumn(fontMetrics().height());
  sign_->setAlignment(Qt::AlignCenter);
  name_->setColumn(fontMetrics().horizontalAdvance(kLongestName));
  name_->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
  // The name alone would not be as wide as the texts below.
  auto place = fact_->sizePolicy();
  place.setRetainSizeWhenHidden(true);
  fact_->setSizePolicy(place);
  auto* line = Look::row();
  line->addWidget(name_);
  line->addWidget(fact_, 1);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(2);
  texts->addLayout(line);
  for (Label* label : {reason_, remedy_, detail_}) texts->addWidget(label);
  auto* row = Look::row();
  setLayout(row);
  row->addWidget(sign_, 0, Qt::AlignTop);
  row->addLayout(texts, 1);
}

void FindingRow::tell(const Finding& finding) {
  const bool isNotable =
      finding.verdict == Finding::Verdict::failed || finding.verdict == Finding::Verdict::warning;
  sign_->tell(QString(signOf(finding.verdict)));
  sign_->setAccessibleName(nameOf(finding.verdict));
  name_->tell(finding.check);
  fact_->tell(isNotable ? std::string() : finding.reason);
  reason_->tell(isNotable ? finding.reason : std::string());
  remedy_->tell(isNotable && !finding.remedy.empty() ? "→ " + finding.remedy : std::string());
  detail_->tell(isNotable ? finding.detail : std::string());
}

}  // namespace verdo
