#pragma once

#include "engine/model/CVOperation.h"

/// Removes the work directories that were left over, for example by a crash, and empties their list.
///
/// Nothing but what we make is ever removed: an entry with another kind of name is reported as an error
/// and dropped from the list. Directories that a running job uses stay, with their entries. A failed
/// removal is reported too and does not end the job.
class CVWorkDirectoryCleanOperation final : public CVOperation
{
public:
    void main() override;
    QString taskDescription() const override;

private:
    void deleteFolders(const QStringList &folders);
    void endOperation();
};
