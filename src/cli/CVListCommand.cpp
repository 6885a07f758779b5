#include "cli/CVListCommand.h"

#include "cli/CVTerminal.h"
#include "cli/CVTerminalPasswords.h"
#include "cli/terminal_text.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXFileName.h"
#include "util/LXSaturatingSum.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype flushBytes = 256 * 1024;

void appendNumber(QByteArray &out, qint64 number, int width = 0, char fill = ' ')
{
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    for (auto length = end - digits.data(); length < width; ++length)
        out.append(fill);
    out.append(digits.data(), end - digits.data());
}

qint64 floorDivide(qint64 a, qint64 b)
{
    return a / b - (a % b < 0 ? 1 : 0);
}

constexpr qint64 nanosecondsInSecond = 1'000'000'000;

// Years that four digits can say; what lies outside is a damaged field, not a time.
bool isShowable(qint64 seconds)
{
    return seconds >= -62'135'596'800 && seconds < 253'402'300'800;
}

// Civil date from days since 1970 (proleptic Gregorian), without the locks of the C library: a listing
// does this once an entry.
void appendUtc(QByteArray &out, qint64 seconds)
{
    const qint64 days = floorDivide(seconds, 86'400);
    const qint64 time = seconds - days * 86'400;
    const qint64 z = days + 719'468; // counted from 1 March of year 0
    const qint64 era = floorDivide(z, 146'097);
    const qint64 dayOfEra = z - era * 146'097;
    const qint64 yearOfEra = (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const qint64 dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const qint64 monthFromMarch = (5 * dayOfYear + 2) / 153;
    const qint64 day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const qint64 month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const qint64 year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    appendNumber(out, year, 4, '0');
    out.append('-');
    appendNumber(out, month, 2, '0');
    out.append('-');
    appendNumber(out, day, 2, '0');
    out.append('T');
    appendNumber(out, time / 3'600, 2, '0');
    out.append(':');
    appendNumber(out, time / 60 % 60, 2, '0');
    out.append(':');
    appendNumber(out, time % 60, 2, '0');
    out.append('Z');
}

// In the person's own time zone, to the minute, always 16 characters.
void appendLocal(QByteArray &out, qint64 nanoseconds)
{
    const qint64 seconds = floorDivide(nanoseconds, nanosecondsInSecond);
    std::array<char, 32> text;
    const std::time_t time = seconds;
    std::tm parts = {};
    if (nanoseconds == XADEntry::unknownTime || !isShowable(seconds) || !::localtime_r(&time, &parts) ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts) != 16) {
        out.append("               -");
        return;
    }
    out.append(text.data(), 16);
}

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

CVListCommand::CVListCommand(CVTerminal &terminal, CVTerminalPasswords &passwords, Form form)
    : m_terminal(terminal)
    , m_passwords(passwords)
    , m_form(form)
{}

int CVListCommand::run(const QStringList &paths, std::stop_token stop)
{
    m_stop = std::move(stop);
    qsizetype listed = 0;
    qsizetype failed = 0;
    qsizetype withoutPassword = 0;
    for (const QString &path : paths) {
        switch (list(path)) {
        case Outcome::Listed:
            ++listed;
            break;
        case Outcome::Failed:
            ++failed;
            break;
        case Outcome::NoPassword:
            ++withoutPassword;
            break;
        case Outcome::Stopped:
            return 130;
        case Outcome::OutputGone:
            return 1;
        }
    }
    if (failed == 0 && withoutPassword == 0)
        return 0;
    if (listed > 0)
        return 4;
    return failed > 0 ? 1 : 3;
}

CVListCommand::Outcome CVListCommand::list(const QString &path)
{
    struct stat status = {};
    const QByteArray encoded = bytesOfFileName(path);
    int error = 0;
    if (::stat(encoded.constData(), &status) != 0 || ::access(encoded.constData(), R_OK) != 0)
        error = errno;
    else if (S_ISDIR(status.st_mode))
        error = EISDIR;
    else if (!S_ISREG(status.st_mode))
        error = EINVAL; // a pipe or device would make the reader wait for ever
    if (error != 0) {
        m_terminal.message(
            u"%1: %2"_s.arg(path, error == EINVAL ? u"not a regular file"_s : systemText(error)));
        return Outcome::Failed;
    }
    Outcome outcome = Outcome::Failed;
    const auto archive = open(path, outcome);
    if (!archive)
        return outcome;
    const bool printed = print(path, *archive);
    if (m_stop.stop_requested())
        return Outcome::Stopped;
    if (printed) {
        const QString problem = archive->listingProblem();
        if (problem.isEmpty())
            return Outcome::Listed;
        // What could be read is shown; that more was there must not pass in silence.
        m_terminal.message(u"“%1” could only be listed in part"_s.arg(path));
        m_terminal.detail(problem);
        return Outcome::Failed;
    }
    if (errno != EPIPE)
        m_terminal.message(u"the list could not be written: %1"_s.arg(systemText(errno)));
    return Outcome::OutputGone;
}

std::unique_ptr<XADArchive> CVListCommand::open(const QString &path, Outcome &outcome)
{
    m_path = path;
    m_lastWasWrong = false;
    m_passwordLacks = false;
    for (;;) {
        m_asked = false;
        XADErrorCode code = XADErrorCode::None;
        QString detail;
        auto archive = XADArchive::recursiveArchiveForFile(path, this, &code, &detail);
        if (m_stop.stop_requested()) {
            outcome = Outcome::Stopped;
            return nullptr;
        }
        if (archive)
            return archive;
        if (m_passwordLacks) {
            outcome = Outcome::NoPassword;
            return nullptr;
        }
        const bool forPassword = code == XADErrorCode::PasswordMissing ||
                                 code == XADErrorCode::PasswordWrongOpening ||
                                 code == XADErrorCode::Password || code == XADErrorCode::PasswordOrDamage;
        if (forPassword && m_asked) {
            m_lastWasWrong = true;
            continue; // forFile() counts the tries and ends this
        }
        m_terminal.message(u"“%1” could not be opened"_s.arg(path));
        if (!detail.isEmpty())
            m_terminal.detail(detail);
        outcome = forPassword ? Outcome::NoPassword : Outcome::Failed;
        return nullptr;
    }
}

bool CVListCommand::print(const QString &path, XADArchive &archive)
{
    const int count = archive.numberOfEntries();
    m_buffer.clear();
    m_buffer.reserve(flushBytes + 64 * 1024);
    switch (m_form) {
    case Form::Json:
        m_buffer.append("{\"path\":");
        appendJsonString(m_buffer, path);
        m_buffer.append(",\"format\":");
        appendJsonString(m_buffer, archive.formatName());
        m_buffer.append(",\"encrypted\":").append(archive.isEncrypted() ? "true" : "false");
        m_buffer.append(",\"entries\":[");
        break;
    case Form::Table:
        if (std::exchange(m_printedBefore, true))
            m_buffer.append('\n');
        appendTerminalText(m_buffer, path);
        m_buffer.append(" (");
        appendTerminalText(m_buffer, archive.formatName());
        if (archive.isEncrypted())
            m_buffer.append(", encrypted");
        m_buffer.append(")\n");
        if (count > 0)
            m_buffer.append("           Size  Modified          Name\n");
        break;
    case Form::Paths:
        break;
    }
    qint64 bytes = 0;
    qint64 folders = 0;
    qint64 shown = 0;
    for (int i = 0; i < count; ++i) {
        // An entry for the folder that all others lie in says nothing.
        if (archive.entryIsDirectory(i) && archive.nameOfEntry(i).isEmpty())
            continue;
        ++shown;
        switch (m_form) {
        case Form::Json:
            if (shown > 1)
                m_buffer.append(',');
            appendJsonEntry(archive, i);
            break;
        case Form::Table:
            appendTableEntry(archive, i);
            if (archive.entryIsDirectory(i))
                ++folders;
            else
                bytes = saturatingSum(bytes, std::max<qint64>(archive.uncompressedSizeOfEntry(i), 0));
            break;
        case Form::Paths:
            appendTerminalText(m_buffer, archive.nameOfEntry(i));
            if (archive.entryIsDirectory(i) && !m_buffer.endsWith('/'))
                m_buffer.append('/');
            m_buffer.append('\n');
            break;
        }
        if (!flush(flushBytes))
            return false;
    }
    if (m_form == Form::Json) {
        m_buffer.append("]}\n");
    } else if (m_form == Form::Table) {
        const auto counted = [](qint64 n, const char *one, const char *more) -> QByteArray {
            return QByteArray::number(n) + ' ' + (n == 1 ? one : more);
        };
        m_buffer.append(LXBytesValueTransformer::formatBytes(bytes).toUtf8());
        m_buffer.append(" in " + counted(shown - folders, "file", "files"));
        m_buffer.append(" and " + counted(folders, "folder", "folders") + "\n");
    }
    return flush(0);
}

void CVListCommand::appendJsonEntry(XADArchive &archive, int index)
{
    const XADEntry &entry = archive.entry(index);
    m_buffer.append("{\"path\":");
    appendJsonString(m_buffer, archive.nameOfEntry(index));
    m_buffer.append(",\"type\":");
    switch (entry.type) {
    case XADEntry::Type::File:
    case XADEntry::Type::HardLink: // a file like any other once it is extracted
        m_buffer.append("\"file\"");
        break;
    case XADEntry::Type::Directory:
        m_buffer.append("\"dir\"");
        break;
    case XADEntry::Type::Symlink:
        m_buffer.append("\"symlink\"");
        break;
    case XADEntry::Type::Special:
        m_buffer.append("\"special\"");
        break;
    }
    m_buffer.append(",\"size\":");
    if (const qint64 size = archive.uncompressedSizeOfEntry(index); size >= 0)
        appendNumber(m_buffer, size);
    else
        m_buffer.append("null");
    m_buffer.append(",\"modified\":");
    const qint64 seconds = floorDivide(entry.modified, nanosecondsInSecond);
    if (entry.modified != XADEntry::unknownTime && isShowable(seconds)) {
        m_buffer.append('"');
        appendUtc(m_buffer, seconds);
        m_buffer.append('"');
    } else {
        m_buffer.append("null");
    }
    m_buffer.append(",\"target\":");
    const bool isLink = entry.type == XADEntry::Type::Symlink || entry.type == XADEntry::Type::HardLink;
    if (const QString target = isLink ? archive.linkTargetOfEntry(index) : QString(); !target.isEmpty())
        appendJsonString(m_buffer, target);
    else
        m_buffer.append("null");
    m_buffer.append('}');
}

void CVListCommand::appendTableEntry(XADArchive &archive, int index)
{
    const XADEntry &entry = archive.entry(index);
    constexpr int sizeWidth = 15;
    const bool isDirectory = archive.entryIsDirectory(index);
    if (const qint64 size = archive.uncompressedSizeOfEntry(index); size >= 0 && !isDirectory)
        appendNumber(m_buffer, size, sizeWidth);
    else
        m_buffer.append("              -");
    m_buffer.append("  ");
    appendLocal(m_buffer, entry.modified);
    m_buffer.append("  ");
    appendTerminalText(m_buffer, archive.nameOfEntry(index));
    if (isDirectory && !m_buffer.endsWith('/'))
        m_buffer.append('/');
    if (entry.type == XADEntry::Type::Symlink || entry.type == XADEntry::Type::HardLink) {
        if (const QString target = archive.linkTargetOfEntry(index); !target.isEmpty()) {
            m_buffer.append(entry.type == XADEntry::Type::Symlink ? " -> " : " = ");
            appendTerminalText(m_buffer, target);
        }
    }
    m_buffer.append('\n');
}

bool CVListCommand::flush(qsizetype from)
{
    if (m_buffer.size() < from)
        return true;
    if (m_stop.stop_requested())
        return false;
    const bool ok = m_terminal.writeOutput(m_buffer);
    m_buffer.resize(0); // keeps the memory
    return ok;
}

void CVListCommand::archiveNeedsPassword(XADArchive &archive)
{
    if (m_stop.stop_requested())
        return;
    m_asked = true;
    const auto password = m_passwords.forFile(m_path, std::exchange(m_lastWasWrong, false));
    if (password)
        archive.setPassword(password);
    else
        m_passwordLacks = true;
}

void CVListCommand::archiveExtractionProgressBytes(XADArchive &, qint64, qint64)
{}

XADAction CVListCommand::archiveExtractionOfEntryDidFail(XADArchive &, int, XADErrorCode)
{
    return XADAction::Abort;
}

bool CVListCommand::archiveExtractionShouldStop(XADArchive &)
{
    return m_stop.stop_requested();
}
