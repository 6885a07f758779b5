#include "archives/reading/CVSafePath.h"

#include "util/LXFileName.h"

#include <QCoreApplication>

namespace {

QString text(const char *source)
{
    return QCoreApplication::translate("CVSafePath", source);
}

bool startsWithDrive(const QString &name)
{
    return name.size() >= 3 && name[0].unicode() < 128 && name[0].isLetter() && name[1] == u':' &&
           (name[2] == u'/' || name[2] == u'\\');
}

bool climbsByBackslash(QStringView component)
{
    for (const auto part : component.split(u'\\'))
        if (part == u"..")
            return true;
    return false;
}

} // namespace

CVSafePath CVSafePath::fromName(const QString &name, bool isDirectory)
{
    CVSafePath result;
    const auto refuse = [&result](const char *reason) {
        result.components.clear();
        result.verdict = Verdict::Refused;
        result.reason = text(reason);
        return result;
    };

    if (name.contains(QChar(u'\0')))
        return refuse("Its name holds a zero byte.");

    QString path = name;
    if (startsWithDrive(path)) {
        if (path[2] == u'\\')
            path.replace(u'\\', u'/');
        path.remove(0, 2);
    }

    qsizetype total = 0;
    for (const auto component : QStringView(path).split(u'/', Qt::SkipEmptyParts)) {
        if (component == u".")
            continue;
        if (climbsByBackslash(component))
            return refuse("Its name leads out of the destination folder.");
        // A folder of this name would later be taken for one of our own and cleaned away.
        if (component.startsWith(u".corvane-"))
            return refuse("Its name is reserved for work folders.");
        QByteArray bytes = bytesOfFileName(component);
        if (bytes.size() > maxComponentBytes)
            return refuse("Its name is longer than a file name can be (255 bytes).");
        total += bytes.size() + 1;
        if (total > maxPathBytes)
            return refuse("Its path is longer than a path can be.");
        result.components.push_back(std::move(bytes));
    }
    if (!result.components.empty()) {
        result.verdict = Verdict::Write;
        return result;
    }
    if (isDirectory) {
        result.verdict = Verdict::Destination;
        return result;
    }
    return refuse("It has no name.");
}

QByteArray CVSafePath::joined() const
{
    QByteArray path;
    for (const QByteArray &component : components) {
        if (!path.isEmpty())
            path += '/';
        path += component;
    }
    return path;
}
