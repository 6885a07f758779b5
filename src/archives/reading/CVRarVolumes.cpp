#include "archives/reading/CVRarVolumes.h"

#include "archives/reading/CVArchiveFiles.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

using namespace Qt::StringLiterals;

constexpr int maxVolumes = 10'000;
// Programs in front of self-extracting archives are smaller.
constexpr qint64 maxProgramBytes = qint64(1) << 20;

/// Keeps the case of the letters around it: "R00" after "RAR".
QString oldVolumeSuffix(const QString &rar, int index)
{
    const QChar letter(char16_t((rar[0].isUpper() ? 'R' : 'r') + index / 100));
    return u"%1%2"_s.arg(letter).arg(index % 100, 2, 10, QLatin1Char('0'));
}

const QRegularExpression &partPattern()
{
    static const QRegularExpression pattern(u"^(.*\\.part)(\\d+)(\\.[^./]+)$"_s,
                                            QRegularExpression::CaseInsensitiveOption |
                                                QRegularExpression::DotMatchesEverythingOption);
    return pattern;
}

QString partName(const QRegularExpressionMatch &match, int number)
{
    return match.captured(1) +
           QString::number(number).rightJustified(match.capturedLength(2), QLatin1Char('0')) +
           match.captured(3);
}

/// The parts of a set whose first one is a program end in .rar.
QString existing(const QString &path)
{
    if (CVArchiveFiles::exists(path))
        return path;
    for (const QString &extension : {u".rar"_s, u".RAR"_s})
        if (const QString other = path.left(path.lastIndexOf(u'.')) + extension;
            CVArchiveFiles::exists(other))
            return other;
    return {};
}

} // namespace

bool CVRarSet::isIncomplete() const
{
    return headers.wantsNextVolume || !headers.isFirstVolume ||
           std::any_of(headers.files.begin(), headers.files.end(),
                       [](const CVRarFile &f) { return !f.isComplete; });
}

CVRarSet CVRarSet::open(const QString &path, CVRarKeys *keys)
{
    CVRarSet set;
    set.source = CVArchiveSource::open({path}, &set.error);
    if (!set.source)
        return set;
    set.offset = cvRarOffset(*set.source);
    if (set.offset < 0)
        return set;
    set.headers = CVRarHeaders::read(*set.source, set.offset, keys);
    if (!set.headers.isVolume)
        return set;
    const QString first = cvFirstRarVolume(path, set.headers.usesPartNumbers);
    set.source = CVArchiveSource::open(cvRarVolumes(first, set.headers.usesPartNumbers), &set.error);
    if (set.source) {
        set.offset = std::max<qint64>(cvRarOffset(*set.source), 0);
        set.headers = CVRarHeaders::read(*set.source, set.offset, keys);
    }
    return set;
}

qint64 cvRarOffset(const CVArchiveSource &source)
{
    QByteArray program(maxProgramBytes, Qt::Uninitialized);
    program.truncate(std::max<qint64>(source.readAt(0, program.data(), program.size()), 0));
    if (program.startsWith("RE\x7e\x5e"))
        return 0;
    const QByteArrayView mark("Rar!\x1a\x07", 6);
    for (qsizetype at = program.indexOf(mark); at >= 0; at = program.indexOf(mark, at + 1))
        // Programs that unpack RAR also carry the mark as a constant.
        if (CVRarHeaders::read(source, at).state != CVRarHeaders::State::NotRar)
            return at;
    return -1;
}

QString cvFirstRarVolume(const QString &path, bool usesPartNumbers)
{
    if (const auto match = partPattern().match(path); usesPartNumbers && match.hasMatch()) {
        const QString first = partName(match, 1);
        if (CVArchiveFiles::exists(first))
            return first;
        const QString program = first.left(first.lastIndexOf(u'.')) + u".exe"_s;
        return CVArchiveFiles::exists(program) ? program : first;
    }
    static const QRegularExpression old(u"\\.[r-z]\\d\\d$"_s, QRegularExpression::CaseInsensitiveOption);
    if (!usesPartNumbers && old.match(path).hasMatch()) {
        const QString stem = path.chopped(4);
        for (const QString &extension : {u".rar"_s, u".RAR"_s})
            if (CVArchiveFiles::exists(stem + extension))
                return stem + extension;
    }
    return path;
}

QStringList cvRarVolumes(const QString &firstVolume, bool usesPartNumbers)
{
    QStringList volumes{firstVolume};
    const auto match = partPattern().match(firstVolume);
    const qsizetype dot = firstVolume.lastIndexOf(u'.');
    if (dot < 0 || (usesPartNumbers && !match.hasMatch()))
        return volumes;
    const int firstNumber = usesPartNumbers ? match.captured(2).toInt() + 1 : 0;
    const QString extension = firstVolume.mid(dot + 1);
    const QString style = extension.isEmpty() ? u"r"_s : extension;
    for (int i = 0; i < maxVolumes; ++i) {
        if (!usesPartNumbers && i >= 900)
            break;
        const QString next = usesPartNumbers ? existing(partName(match, firstNumber + i))
                                             : firstVolume.left(dot + 1) + oldVolumeSuffix(style, i);
        if (next.isEmpty() || !CVArchiveFiles::exists(next))
            break;
        volumes << next;
    }
    return volumes;
}
