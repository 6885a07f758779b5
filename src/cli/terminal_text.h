#pragma once

#include <QByteArray>
#include <QStringView>

/// Texts for a terminal. Names come out of archives that strangers made, and a terminal obeys what
/// is written to it, so nothing from outside reaches it but through terminalText().

/// `text` as UTF-8, escaped by LXDisplay: what a terminal would act on is written out (\n, \x1b,
/// \u{202e}); printable text, backslashes included, is unchanged.
QByteArray terminalText(QStringView text);

/// The same, appended to `out`.
void appendTerminalText(QByteArray &out, QStringView text);

/// `text` as a JSON string with its quotes, appended to `out`.
void appendJsonString(QByteArray &out, QStringView text);

/// Cells that `text` takes on a terminal: wide East Asian characters count two, combining marks none.
int terminalWidth(QStringView text);

/// `text` cut in its middle with "…" so that it takes at most `cells` cells.
QString terminalElided(const QString &text, int cells);
