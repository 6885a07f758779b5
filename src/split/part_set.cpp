#include "split/part_set.h"

#include "split/block_copy.h"
#include "split/split_names.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QCoreApplication>

#include <algorithm>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QString text(const char *key)
{
    return QCoreApplication::translate("CVFileCombiner", key);
}

} // namespace

LXResult<SplitPart> SplitPart::at(const QString &path)
{
    struct stat facts;
    if (::stat(bytesOfFileName(path).constData(), &facts) != 0 || !S_ISREG(facts.st_mode))
        return unreadablePartError(path);
    SplitPart part;
    part.path = path;
    part.size = static_cast<quint64>(facts.st_size);
    part.m_device = facts.st_dev;
    part.m_inode = facts.st_ino;
    part.m_seconds = facts.st_mtim.tv_sec;
    part.m_nanoseconds = facts.st_mtim.tv_nsec;
    return part;
}

LXResult<LXFileDescriptor> SplitPart::open() const
{
    LXFileDescriptor file = openRegularFile(path);
    if (!file.isOpen())
        return unreadablePartError(path);
    if (const auto same = checkUnchanged(file); !same)
        return same.error();
    return file;
}

LXResult<void> SplitPart::checkUnchanged(const LXFileDescriptor &opened) const
{
    struct stat facts;
    if (::fstat(opened.get(), &facts) == 0 && facts.st_dev == m_device && facts.st_ino == m_inode &&
        static_cast<quint64>(facts.st_size) == size && facts.st_mtim.tv_sec == m_seconds &&
        facts.st_mtim.tv_nsec == m_nanoseconds)
        return {};
    return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” was changed while it was read."),
                          path);
}

bool isCompressedPart(const QString &path)
{
    return path.endsWith(u".zsplit"_s);
}

LXResult<void> verifyShapeOfSet(const std::vector<SplitPart> &parts)
{
    const QString &first = parts.front().path;
    const qsizetype length = partCodeOfPath(first).size();
    const QString kind = first.mid(first.lastIndexOf(u'.'));
    const QString stem = first.chopped(length + kind.size());
    const auto missing = [&](quint64 number) {
        return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is missing."),
                              stem + partCode(number, static_cast<int>(length)) + kind);
    };
    quint64 expected = 0;
    for (const SplitPart &part : parts) {
        const QString code = partCodeOfPath(part.path);
        if (code.size() != length)
            return splitPartError(
                QT_TRANSLATE_NOOP("CVFileCombiner",
                                  "The part “%1” does not belong to the same set as the others."),
                part.path);
        const quint64 number = partNumber(code);
        if (number < expected)
            return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” is there twice."),
                                  part.path);
        if (number > expected)
            return missing(expected);
        ++expected;
    }
    // Raw sets have just as many letters as their number of parts needs.
    if (!isCompressedPart(first) && partCodeLength(expected) != length)
        return missing(expected);

    const quint64 size = parts.front().size;
    for (const SplitPart &part : parts) {
        const bool isLast = &part == &parts.back();
        if ((isLast ? part.size > size : part.size != size) || (part.size == 0 && parts.size() > 1))
            return splitPartError(
                QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” has not the size of the others."),
                part.path);
    }
    return {};
}

QString sentenceAboutDamage(const std::vector<SplitPart> &parts, std::uint64_t from, std::uint64_t to)
{
    const SplitPart *first = nullptr;
    const SplitPart *last = nullptr;
    std::uint64_t end = 0;
    for (const SplitPart &part : parts) {
        end += part.size;
        if (!first && from < end)
            first = &part;
        last = &part;
        if (to <= end)
            break;
    }
    if (!first || first == last)
        return text("The part “%1” is damaged.").arg(lastComponent(last->path));
    return text("One of the parts from “%1” to “%2” is damaged.")
        .arg(lastComponent(first->path), lastComponent(last->path));
}

LXError splitSetError(const char *description, const QString &reason, const QString &suggestion)
{
    return LXError{.domain = u"CorvaneErrorDomain"_s,
                   .code = 1,
                   .description = QString::fromLatin1(description),
                   .reason = reason,
                   .suggestion = suggestion};
}

LXError splitPartError(const char *reason, const QString &path)
{
    return splitSetError("Combine failed", text(reason).arg(lastComponent(path)),
                         text("Get the part again from where the set came from."));
}

LXError modifiedPartError(const QString &path)
{
    return splitSetError("Verification failed",
                         text("The file “%1” was modified since it was split and can't be combined.")
                             .arg(lastComponent(path)));
}

LXError unreadablePartError(const QString &path)
{
    return splitPartError(QT_TRANSLATE_NOOP("CVFileCombiner", "The part “%1” could not be read."), path);
}
