#pragma once

#include "util/LXConfinement.h"

#include <QStringList>

/// What the tools that archives are read and made with may do. Each caller adds the files it is about.
namespace CVToolRules {

/// A single program that reads what every program reads: libraries, data and settings of the system. It
/// changes nothing, starts nothing and reaches nobody.
LXConfinementRules single();

/// The same for a shell line, or a tool that starts others: it may start the programs of these names, or at
/// these paths, only. A tool that the environment names instead of the system's is the person's own; with
/// one of them among the tools, every program of the system may be started.
LXConfinementRules line(const QStringList &programs);

} // namespace CVToolRules
