#pragma once

#include "archives/reading/CVRarSum.h"
#include "archives/reading/CVRarVolumes.h"
#include "archives/reading/XADTypes.h"

#include <memory>
#include <optional>

/// Holds against the headers of a RAR archive what a reader that checks less made of it: whether it saw
/// every file, unpacked the right bytes, and whether it was the password that did not fit.
class CVRarWitness
{
public:
    /// The password is needed for encrypted names at once, for encrypted files later: see setPassword().
    explicit CVRarWitness(QString path, const std::optional<QString> &password);

    void setPassword(const QString &password) { m_keys.emplace(password); }

    /// What is wrong with the archive as a whole: None, also where the headers cannot be read.
    struct Verdict
    {
        XADErrorCode code = XADErrorCode::None;
        QString detail = {};
    };
    Verdict verdict() const;

    /// Whether a list of so many entries names every file. True where that cannot be known.
    bool sawAll(std::size_t entries) const { return !m_isGood || entries == m_set.headers.files.size(); }

    /// Null where the headers cannot be read.
    const CVRarFile *file(std::size_t index) const
    {
        return m_isGood && index < m_set.headers.files.size() ? &m_set.headers.files[index] : nullptr;
    }

    /// By a method that no reader here decrypts.
    static bool needsOtherProgram(const CVRarFile &file);
    static QString otherProgramText();

    enum class Password {
        Right,
        Wrong,
        Unknown, ///< nothing is stored to tell by
    };
    Password password(const CVRarFile &file);

    CVRarSum sum(const CVRarFile &file) { return CVRarSum(file, m_keys ? &*m_keys : nullptr); }

private:
    std::optional<CVRarKeys> m_keys;
    CVRarSet m_set;
    bool m_isGood = false;
};
