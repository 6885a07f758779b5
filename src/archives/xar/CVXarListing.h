#pragma once

#include "archives/xar/xar.h"

/// The lines in which the tool names entries, and back.
namespace CVXarListing {

/// A path for one line of a listing whose fields are separated by blanks. What would not survive that is
/// written as "\xNN": control characters, blanks other than single ones between other characters, and bytes
/// that are not UTF-8; a backslash as "\\". A blank that would make the name look like the beginning
/// of a line (permissions, then a number) is written so too.
QByteArray escaped(const QByteArray &path);
QByteArray unescaped(QByteArrayView text);

/// Permissions, owner/group, size, date, time and the escaped path. The permissions always end in "x" or "-".
QByteArray line(const xar_file &file, const QByteArray &path);

} // namespace CVXarListing
