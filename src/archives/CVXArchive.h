#pragma once

#include "archives/CVArchive.h"
#include "archives/reading/XADArchive.h"

#include <QHash>

/// The back end that lists and extracts whatever XADArchive reads; it creates nothing.
/// Thread: the job's worker; cancelExtract() from any.
class CVXArchive : public CVArchive, private XADArchiveDelegate
{
public:
    bool canPreview() const override { return true; }
    std::vector<std::shared_ptr<CVFileNode>> previewedFiles() const override { return m_previewFiles; }
    std::shared_ptr<CVFileNode> filePreviewsNode() const override { return m_filePreviews; }
    void cancelExtract() override;

    XADArchive *xadarchive() const { return m_xadarchive.get(); }

    /// No installed reader knows what the file is; nothing was listed or written.
    bool isUnknown() const { return m_isUnknown; }

    /// True when the requested path is the entry itself or one of its folders: compared by components.
    static bool pathIsParentOrIsPathOfTarget(const QString &path, const QString &target);

protected:
    /// Nobody writes the formats that are only read: ends with Unsupported.
    void createCommand() override;
    void preview() override;
    void extractCommand() override;

    /// Opens the archive and settles the password. False with the status set.
    /// Throws CVArchiveException when the password trial cannot open it.
    bool setupXADArchiveAtPath(const QString &path, bool recurse);

private:
    struct Listing;
    void retrieveFileNamesAndSizes(Listing &listing);
    void buildPreviewFileTree(Listing &listing);
    void extractIndividualFiles();
    QString sizeForArchive(int index) const;
    void takeResult(XADErrorCode code);

    // XADArchiveDelegate
    void archiveNeedsPassword(XADArchive &archive) override;
    void archiveExtractionProgressBytes(XADArchive &archive, qint64 done, qint64 total) override;
    XADAction archiveExtractionOfEntryDidFail(XADArchive &archive, int entry, XADErrorCode error) override;
    bool archiveExtractionShouldStop(XADArchive &archive) override;
    bool archiveExtractionMayExceedLimit(XADArchive &archive, const QString &explanation) override;

    std::atomic<bool> m_cancelled = false;
    bool m_isUnknown = false;
    std::unique_ptr<XADArchive> m_xadarchive;
};
