#pragma once

#include <QLatin1StringView>
#include <QString>

/// A new folder, readable by its owner only, in the temporary folder of the system. It is on the list of work
/// directories and removed with the object. Any thread, one at a time.
class CVTempDir
{
public:
    /// The name is the prefix, a dot and six characters. The cleaning knows only names with convertPrefix().
    explicit CVTempDir(const QString &prefix);
    ~CVTempDir();
    CVTempDir(const CVTempDir &) = delete;
    CVTempDir &operator=(const CVTempDir &) = delete;

    /// Empty when it could not be made, and after remove().
    const QString &path() const { return m_path; }
    /// Why it could not be made: an errno.
    int systemError() const { return m_systemError; }

    /// With its contents.
    void remove();

    /// What the converter uses.
    static constexpr QLatin1StringView convertPrefix() { return QLatin1StringView("DCArchive-Convert"); }
    static constexpr QLatin1StringView convertPrefixWithDot()
    {
        return QLatin1StringView("DCArchive-Convert.");
    }

private:
    QString m_path;
    int m_systemError = 0;
};
