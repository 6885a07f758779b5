#include "archives/xar/CVXarListing.h"

#include "archives/xar/CVXarTable.h"
#include "util/LXFileName.h"

namespace {

/// A name that is one field.
QByteArray field(const QByteArray &name, std::uint32_t number)
{
    if (name.isEmpty())
        return QByteArray::number(number);
    QByteArray result = name;
    for (char &c : result)
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '/')
            c = '_';
    return result;
}

char typeLetter(xar_file::Type type)
{
    switch (type) {
    case xar_file::Type::directory:
        return 'd';
    case xar_file::Type::symlink:
        return 'l';
    case xar_file::Type::special:
        return 'p';
    case xar_file::Type::file:
    case xar_file::Type::hardlink:
        break;
    }
    return '-';
}

} // namespace

namespace CVXarListing {

QByteArray escaped(const QByteArray &path)
{
    const QString text = fileNameFromBytes(path);
    QByteArray result;
    result.reserve(path.size());
    const auto asCode = [&result](QStringView character) {
        for (const char byte : bytesOfFileName(character))
            result += "\\x" + QByteArray(1, byte).toHex();
    };
    qsizetype length = 0;
    for (qsizetype i = 0; i < text.size(); i += length) {
        const QChar c = text[i];
        length = c.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate() ? 2 : 1;
        const QStringView character = QStringView(text).sliced(i, length);
        const QChar before = i > 0 ? text[i - 1] : QChar();
        const QChar after = i + 1 < text.size() ? text[i + 1] : QChar();
        if (c == u'\\')
            result += "\\\\";
        else if (c == u' ' && !before.isNull() && !after.isNull() && before != u' ' &&
                 !((before == u'x' || before == u'|' || before == u'-') && after.isDigit()))
            result += ' ';
        else if (c.isSpace() || c.category() == QChar::Other_Control || (length == 1 && c.isSurrogate()))
            asCode(character);
        else
            result += character.toUtf8();
    }
    return result;
}

QByteArray unescaped(QByteArrayView text)
{
    QByteArray result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            result += text[i];
        } else if (text[i + 1] == 'x' && i + 3 < text.size()) {
            result += QByteArray::fromHex(text.sliced(i + 2, 2).toByteArray());
            i += 3;
        } else {
            result += text[++i];
        }
    }
    return result;
}

QByteArray line(const xar_file &file, const QByteArray &path)
{
    QByteArray result(1, typeLetter(file.type));
    const std::uint32_t mode =
        file.hasMode ? file.mode : (file.type == xar_file::Type::directory ? 0755U : 0644U);
    for (int shift = 6; shift >= 0; shift -= 3) {
        const std::uint32_t bits = mode >> shift;
        result += (bits & 4U) ? 'r' : '-';
        result += (bits & 2U) ? 'w' : '-';
        result += (bits & 1U) ? 'x' : '-';
    }
    result += ' ' + field(file.user, file.uid) + '/' + field(file.group, file.gid);
    result += ' ' + QByteArray::number(quint64(file.original ? file.original->size : file.size));
    QByteArray time = CVXarTable::fromTime(file.modified.value_or(0));
    if (time.isEmpty())
        time = CVXarTable::fromTime(0);
    result += ' ' + time.left(10) + ' ' + time.mid(11, 8) + ' ';
    return result + escaped(path);
}

} // namespace CVXarListing
