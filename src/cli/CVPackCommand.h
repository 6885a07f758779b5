#pragma once

#include "cli/CVJobCommand.h"
#include "cli/CVTerminalArguments.h"

class CVEditArchiveOperationDataBinding;

/// `corvane create`, `corvane convert`, and `corvane FILE…` where no archive is among the files. Main thread
/// only.
class CVPackCommand final : public CVJobCommand
{
public:
    using CVJobCommand::CVJobCommand;
    ~CVPackCommand() override;

    /// The process's exit status, when the job has ended and cleaned up.
    int create(const CVTerminalArguments &arguments);
    int convert(const CVTerminalArguments &arguments);
    /// By the settings.
    int open(const CVTerminalArguments &arguments);

    /// None of the paths is an archive by its name, and all are there.
    static bool areFilesToPack(const QStringList &paths);

private:
    /// Resolved; nothing after a message.
    std::optional<QStringList> filesToPack(const QStringList &given);
    /// `bytes`: of what will be packed, where volumes are wanted.
    int pack(const CVPackOptions &options, const CVTerminalArguments &arguments, const QStringList &paths,
             double bytes, bool converting);
    bool prepareBinding(CVEditArchiveOperationDataBinding &data, const CVPackOptions &options,
                        const QStringList &paths, bool converting);
    bool choosePassword(CVEditArchiveOperationDataBinding &data, const CVPackOptions &options);
    bool isInTheWay(const QString &newArchive, const QStringList &inputs);
    void overrideSettings(const CVPackOptions &options);
    int wrongUse(const QString &text);

    bool m_wrongUse = false;
};
