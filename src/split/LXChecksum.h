#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

/// SHA-1 (FIPS 180) of whole files. Stateless; any thread. Memory: one block of 1 MiB a file at work.
class LXChecksum
{
public:
    /// Asked between blocks; on several threads at once.
    using ShouldStop = std::function<bool()>;

    /// 40 lower-case hexadecimal digits. Nothing when it is no file that can be read to its end, or when
    /// stopped.
    static std::optional<QString> checksumFileAtPath(const QString &path, const ShouldStop &shouldStop = {});

    /// Equal to the digit, in lower case. A file that cannot be read is not.
    static bool verifyFileAtPath(const QString &path, const QString &checksum,
                                 const ShouldStop &shouldStop = {});

    /// Of several files at once, one a core. Those that cannot be read are missing in the answer.
    static QMap<QString, QString> checksumsOfFiles(const QStringList &paths,
                                                   const ShouldStop &shouldStop = {});
};
