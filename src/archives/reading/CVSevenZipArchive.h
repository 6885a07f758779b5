#pragma once

#include "archives/reading/CVSevenZipLibrary.h"
#include "archives/reading/CVSevenZipStreams.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// Answers the module while an archive is opened: password, other volumes, cancel.
class CVSevenZipOpenCallback final : public sevenzip::OpenCallback,
                                     public sevenzip::OpenVolumeCallback,
                                     public sevenzip::CryptoGetTextPassword
{
public:
    using Password = std::function<std::optional<QString>()>;
    using ShouldStop = std::function<bool()>;

    CVSevenZipOpenCallback(const CVSevenZipLibrary &library, std::shared_ptr<const CVSevenZipSource> source,
                           Password password, ShouldStop shouldStop);
    CVSevenZipOpenCallback(const CVSevenZipOpenCallback &) = delete;
    CVSevenZipOpenCallback &operator=(const CVSevenZipOpenCallback &) = delete;
    virtual ~CVSevenZipOpenCallback() = default;

    bool passwordAsked() const { return m_passwordAsked; }
    bool passwordMissing() const { return m_passwordMissing; }
    bool stopped() const { return m_stopped; }
    /// The last volume that was asked for and is not there; empty when all were.
    const QString &missingVolume() const { return m_missingVolume; }
    QStringList volumePaths() const;

    sevenzip::Result QueryInterface(const sevenzip::Guid &iid, void **out) override;
    std::uint32_t AddRef() override { return 1; }
    std::uint32_t Release() override { return 1; }
    sevenzip::Result SetTotal(const std::uint64_t *files, const std::uint64_t *bytes) override;
    sevenzip::Result SetCompleted(const std::uint64_t *files, const std::uint64_t *bytes) override;
    sevenzip::Result GetProperty(std::uint32_t property, sevenzip::Variant *value) override;
    sevenzip::Result GetStream(const wchar_t *name, sevenzip::InStream **stream) override;
    sevenzip::Result GetTextPassword(sevenzip::ModuleString *password) override;

private:
    const CVSevenZipLibrary &m_library;
    std::shared_ptr<const CVSevenZipSource> m_source;
    Password m_password;
    ShouldStop m_shouldStop;
    std::vector<std::unique_ptr<CVSevenZipInStream>> m_volumes;
    QString m_missingVolume;
    bool m_passwordAsked = false;
    bool m_passwordMissing = false;
    bool m_stopped = false;
};

/// Hands a password to the module; an error when there is none.
sevenzip::Result cvSevenZipGivePassword(const CVSevenZipLibrary &library,
                                        const std::optional<QString> &password, sevenzip::ModuleString *out);

/// One open archive object with all that it borrows, and the file systems opened inside it.
/// Thread: one at a time; several objects over one source are independent.
class CVSevenZipArchive
{
public:
    CVSevenZipArchive(const CVSevenZipLibrary &library, std::shared_ptr<const CVSevenZipSource> source,
                      CVSevenZipOpenCallback::Password password,
                      CVSevenZipOpenCallback::ShouldStop shouldStop);
    CVSevenZipArchive(const CVSevenZipArchive &) = delete;
    CVSevenZipArchive &operator=(const CVSevenZipArchive &) = delete;
    ~CVSevenZipArchive();

    /// Opens the bytes from `offset` on. `threads`: how many a decoder may use.
    /// Ok; False when it is not this format (or the password does not fit); other errors of the module.
    sevenzip::Result open(const CVSevenZipLibrary::Format &format, qint64 offset, unsigned threads);

    /// Goes on into the file system that a disk image holds, as far as there is one.
    void descend();

    void setThreads(unsigned threads);

    sevenzip::InArchive &top() const { return *m_levels.back().archive.get(); }
    const CVSevenZipLibrary::Format &topFormat() const { return *m_levels.back().format; }
    /// From the outermost in.
    std::vector<const CVSevenZipLibrary::Format *> formats() const;
    const CVSevenZipOpenCallback &callback() const { return m_callback; }

private:
    struct Level
    {
        const CVSevenZipLibrary::Format *format;
        CVSevenZipPointer<sevenzip::InStream> stream; ///< null for the outermost: that one is ours
        CVSevenZipPointer<sevenzip::InArchive> archive;
    };
    bool descendOnce();

    const CVSevenZipLibrary &m_library;
    std::shared_ptr<const CVSevenZipSource> m_source;
    CVSevenZipInStream m_stream;
    CVSevenZipOpenCallback m_callback;
    std::vector<Level> m_levels;
};
