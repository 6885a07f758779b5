#include "platform/LXOpening.h"

#include "util/LXFileDescriptor.h"
#include "util/LXFileName.h"
#include "util/path_parts.h"

#include <QMimeDatabase>
#include <QMimeType>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <span>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr size_t sniffedBytes = 16 * 1024;

/// Types whose default application runs or installs what it is given, or follows what is written in it,
/// beyond those that derive from application/x-executable.
constexpr QLatin1StringView startingTypes[] = {
    "application/x-sharedlib"_L1,
    "application/x-object"_L1,
    "application/x-desktop"_L1,
    "application/x-mswinurl"_L1,
    "application/x-ms-dos-executable"_L1,
    "application/x-msdownload"_L1,
    "application/x-dosexec"_L1,
    "application/vnd.microsoft.portable-executable"_L1,
    "application/x-mach-binary"_L1,
    "application/x-msi"_L1,
    "application/x-ms-shortcut"_L1,
    "application/x-bat"_L1,
    "text/vbscript"_L1,
    "text/x-ms-regedit"_L1,
    "application/x-java"_L1,
    "application/x-java-archive"_L1,
    "application/x-java-jnlp-file"_L1,
    "application/x-python-bytecode"_L1,
    "application/vnd.appimage"_L1,
    "application/x-iso9660-appimage"_L1,
    "application/vnd.flatpak"_L1,
    "application/vnd.flatpak.ref"_L1,
    "application/vnd.flatpak.repo"_L1,
    "application/vnd.snap"_L1,
};

/// The same, for what the MIME database has no types for.
constexpr QLatin1StringView startingSuffixes[] = {
    "application"_L1, "appref-ms"_L1,
    "bat"_L1,         "bundle"_L1,
    "cmd"_L1,         "com"_L1,
    "command"_L1,     "cpl"_L1,
    "directory"_L1,   "exe"_L1,
    "hta"_L1,         "inf"_L1,
    "jse"_L1,         "lnk"_L1,
    "msc"_L1,         "msix"_L1,
    "msp"_L1,         "pif"_L1,
    "ps1"_L1,         "run"_L1,
    "scr"_L1,         "settingcontent-ms"_L1,
    "vbe"_L1,         "vbs"_L1,
    "webloc"_L1,      "wsf"_L1,
    "wsh"_L1,
};

/// Scripts of types that do not derive from application/x-executable.
constexpr QLatin1StringView otherScripts[] = {"application/x-php"_L1, "text/tcl"_L1};

bool inheritsAny(const QMimeType &type, std::span<const QLatin1StringView> names)
{
    return std::any_of(names.begin(), names.end(),
                       [&](QLatin1StringView name) { return type.inherits(name); });
}

bool isScript(const QMimeType &type)
{
    return inheritsAny(type, otherScripts) ||
           (type.inherits(u"application/x-executable"_s) && type.inherits(u"text/plain"_s));
}

bool starts(const QMimeType &type, bool mayBeExecuted)
{
    // A script that may not be executed is a text, and opened with an editor.
    if (isScript(type))
        return mayBeExecuted;
    return inheritsAny(type, startingTypes) || type.inherits(u"application/x-executable"_s);
}

bool nameStarts(const QMimeDatabase &types, const QString &name, bool mayBeExecuted)
{
    const QString suffix = name.mid(name.lastIndexOf(u'.') + 1).toLower();
    if (std::find(std::begin(startingSuffixes), std::end(startingSuffixes), suffix) !=
        std::end(startingSuffixes))
        return true;
    const QList<QMimeType> named = types.mimeTypesForFileName(matchableFileName(name));
    return std::any_of(named.begin(), named.end(),
                       [&](const QMimeType &type) { return starts(type, mayBeExecuted); });
}

QString nameBehindLinks(const QByteArray &path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.constData(), nullptr), &std::free);
    return real ? lastComponent(fileNameFromBytes(real.get())) : QString();
}

} // namespace

LXOpening::Look LXOpening::look(const QString &path)
{
    const QByteArray bytes = bytesOfFileName(path);
    // Without O_NONBLOCK a FIFO would hold us up for ever.
    const LXFileDescriptor file(::open(bytes.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
        return {};
    if (S_ISDIR(status.st_mode))
        return {.mayOpen = true, .mimeType = u"inode/directory"_s};
    if (!S_ISREG(status.st_mode))
        return {};

    std::array<char, sniffedBytes> head;
    const ssize_t size = ::pread(file.get(), head.data(), head.size(), 0);
    if (size < 0)
        return {};
    const QByteArray data = QByteArray::fromRawData(head.data(), size);

    const QMimeDatabase types;
    const QString name = lastComponent(path);
    const bool mayBeExecuted = (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
    const QMimeType type = types.mimeTypeForFileNameAndData(matchableFileName(name), data);
    const QMimeType content = types.mimeTypeForData(data);
    // Some file systems mark every file as executable, so the mark alone decides only where nothing else
    // is known about the file.
    const bool runs = starts(type, mayBeExecuted) || starts(content, mayBeExecuted) ||
                      nameStarts(types, name, mayBeExecuted) ||
                      nameStarts(types, nameBehindLinks(bytes), mayBeExecuted) ||
                      (mayBeExecuted && (data.startsWith("#!") || type.isDefault()));
    return {.mayOpen = !runs, .mimeType = isScript(type) ? u"text/plain"_s : type.name()};
}
