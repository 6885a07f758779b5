#pragma once

#include <QString>
#include <QStringView>

/// Text from archives and disks made fit to be shown. Any thread.
namespace LXDisplay {

/// Control characters, those that turn the direction of writing, invisible marks, line and paragraph
/// separators and what is no character at all, written as escapes ("\n", "\x1b", "\u{202e}"), so that
/// a name can neither steer a terminal nor look like another name. Everything else stays.
QString displayEscaped(QStringView text);

/// The name that was shown as this, for names that a person copies from there: its \xNN and \u{NNNN} are
/// characters again, bytes that are no text (\u{dcff}) among them. A text without any is itself.
QString fromEscaped(const QString &text);

/// The last component of the path, escaped.
QString displayName(const QString &path);

} // namespace LXDisplay
