#pragma once

#include "jobs/CVExtractArchivesOperation.h"

/// An extraction whose result is opened at once. Single files that are delivered instead get access to
/// their destination first, and their work directory is made inside it while that access is held.
class CVTemporaryArchiveExtractOperation final : public CVExtractArchivesOperation
{
protected:
    LXResult<QString> makeWorkDirectoryForEntries() override;
};
