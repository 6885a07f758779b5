#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QPalette>
#include <QSize>
#include <QString>

#include <chrono>

/// How Corvane looks: measures, fonts, colours and pictures, all made from the desktop's palette and font, so
/// that light, dark, large text and 200 % scale need nothing further. Main thread.
namespace CVTheme {

/// The grid: margins and gaps are whole or half units. Device-independent pixels.
constexpr int unit = 8;
constexpr int margin = 2 * unit;
constexpr int spacing = unit;

/// Length of one slide.
constexpr std::chrono::milliseconds slideDuration{850};

/// The content of the window before any screen asks for more: 460 × 300 with a font of usual size, and more
/// with a larger one.
QSize initialSize();
/// A length meant for a font of usual size (13 px high letters' line of 16 px), with the desktop's own font.
int scaled(int length);

QFont titleFont();
QFont smallFont();
/// For text that comes second: between the colours of text and background.
QColor subtitleColor(const QPalette &palette);
/// Thin lines and frames.
QColor lineColor(const QPalette &palette);
QColor accentColor(const QPalette &palette);
/// For what went wrong; readable on the palette's background.
QColor errorColor(const QPalette &palette);
bool isDark(const QPalette &palette);
/// For desktops that ask for dark windows and leave the palette to the program.
QPalette darkPalette();

/// icons/<name>.svg of the resources: "tool/back", "format/zip", "app/corvane". In tool icons the word
/// currentColor is the palette's text colour at the time of drawing, dimmed where disabled. Sharp at every
/// scale. Cached; a name without a picture gives a null icon and a log line.
QIcon icon(const QString &name);

/// The desktop asks for no motion: slides and animations end at once.
bool reducedMotion();
void setReducedMotion(bool reduced);

} // namespace CVTheme
