#pragma once

#include "cli/CVJobCommand.h"
#include "cli/CVTerminalArguments.h"

class CVExtractArchivesOperation;

/// `corvane extract`, `corvane clean`, and `corvane FILE…` where archives are among the files. Main thread
/// only.
class CVExtractCommand final : public CVJobCommand
{
public:
    using CVJobCommand::CVJobCommand;
    ~CVExtractCommand() override;

    /// The process's exit status, when the last job has ended and cleaned up.
    int extract(const CVTerminalArguments &arguments);
    /// Files without a command, archives among them: a batch of archives is extracted. With anything else in
    /// it, it is not clear what is wanted, which is said before any of them is touched.
    int open(const CVTerminalArguments &arguments);
    int clean();

private:
    /// Paths made absolute, each once, without those that cannot be read; these are told and counted.
    QStringList readablePaths(const QStringList &paths);
    void extractBy(const std::shared_ptr<CVExtractArchivesOperation> &operation, const QStringList &paths);
};
