#pragma once

#include "archives/CVXArchive.h"

/// 7-Zip archives: read like every other archive. Writing them is not built in so far; a create job on
/// one ends with the status Unsupported.
class CVP7ZipArchive : public CVXArchive
{
public:
    bool canPreview() const override { return false; }
    bool canEncrypt() const override { return true; }
    bool canSetCompressionLevel() const override { return true; }
    QString archiveDescription() const override;

protected:
    void createCommand() override;
};

/// ZIP archives, as far as they are written; they are read by CVXArchive.
class CVZipArchive final : public CVP7ZipArchive
{
public:
    QString archiveDescription() const override;
};
