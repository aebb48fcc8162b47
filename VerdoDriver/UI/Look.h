#pragma once

#include <QBoxLayout>
#include <QColor>
#include <QFont>
#include <QPalette>
#include <QString>
#include <QWidget>
#include <cstdint>
#include <string>

/// The measures of the popover, and how texts come to it.
namespace verdo::Look {

inline constexpr int kWidth = 340;  ///< of the popover, px
inline constexpr int kGrid = 8;
inline constexpr int kMargin = 16;
inline constexpr int kRow = 32;
inline constexpr int kShape = 32;    ///< of the connection's shape
inline constexpr int kCaption = 56;  ///< width of what stands before a field

/// How many characters of a text from elsewhere are kept at all.
inline constexpr qsizetype kMaxText = 600;

/// A text for the screen: one line, without control characters and those that turn the direction
/// of what follows, and bounded. It is no markup; whoever shows it says so to its widget.
QString shown(const std::string& text, qsizetype limit = kMaxText);
/// A sentence about this computer in the words of its system.
QString shownMessage(const std::string& text);
/// For a tool tip, which would take markup for markup.
QString escapedTip(const QString& text);

/// The system's font by its role here.
QFont headlineFont(const QFont& system);
QFont factFont(const QFont& system);
/// The text's colour for facts, and for hairlines.
QColor factColor(const QPalette& palette);
QColor lineColor(const QPalette& palette);

/// Frames a widget where its style's frame, a darker shade of the window, cannot be seen. To be
/// called at the end of its paintEvent.
void frameOnBlack(QWidget& widget);

/// "2:05", or "1:02:05" from an hour on; "00:05" with `padded`. What is below zero counts as zero.
QString minutes(std::int64_t seconds, bool padded);

/// A column that begins and ends at the popover's margins, and a row within one. Owned by `parent`
/// once it is laid out.
QVBoxLayout* column(QWidget* parent);
QHBoxLayout* row();

}  // namespace verdo::Look
