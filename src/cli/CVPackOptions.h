#pragma once

#include "util/LXResult.h"

#include <QString>
#include <QStringList>

#include <optional>

/// What the command line says about an archive to be written, and what of it goes together. Looks at words
/// only, and at which tools are installed.
struct CVPackOptions
{
    QString format; ///< one of formats()
    std::optional<QString> name;
    std::optional<int> level;
    bool encrypt = false;
    std::optional<double> volumeBytes;
    std::optional<int> images;
    std::optional<int> audio;
    bool replace = false;

    /// Below it a volume would be little more than its own overhead.
    static constexpr double smallestVolume = 64 * 1024;
    /// Volumes are numbered with three digits.
    static constexpr double mostVolumes = 999;
    /// What the tables of the two media converters go up to.
    static constexpr int imageFormats = 13;
    static constexpr int audioFormats = 8;

    /// The extensions of the formats that can be written, in the order they are listed to people.
    static QStringList formats();
    /// The format as formats() has it, whatever the case of the letters; nothing for an unknown one.
    static std::optional<QString> formatNamed(const QString &word);
    /// "700000", "100MB", "1.5GiB": bytes.
    static std::optional<double> parseSize(const QString &text);

    /// One line that names what does not fit and what works instead; nothing when all fits.
    std::optional<QString> problem() const;
    /// The same about a password for a new archive of the format.
    static std::optional<QString> passwordProblem(const QString &format, const QString &password);
    /// The same for volumes of that size, for what takes at most `bytes`.
    static std::optional<QString> volumeProblem(double volumeBytes, double bytes);
    /// The same for the name of a file to be made.
    static std::optional<QString> nameProblem(const QString &name);
};
