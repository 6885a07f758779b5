#pragma once

#include "cli/CVJobCommand.h"
#include "cli/CVTerminalArguments.h"

#include <vector>

class CVPackCommand;

/// `corvane split` and `corvane combine`. Main thread only.
class CVSplitCommand final : public CVJobCommand
{
public:
    using CVJobCommand::CVJobCommand;
    ~CVSplitCommand() override;

    /// The process's exit status. With the compression 7z the parts are volumes of an archive, which
    /// `packing` makes.
    int split(const CVTerminalArguments &arguments, CVPackCommand &packing);
    /// Parts of several sets are put together to one file each.
    int combine(const CVTerminalArguments &arguments);

private:
    std::vector<QStringList> sets(const QStringList &given);
};
