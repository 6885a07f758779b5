#pragma once

#include "util/LXResult.h"

#include <QString>

/// Where the external programs are that archives are read and made with.
///
/// A tool is looked for in the environment variable CORVANE_TOOL_<NAME> (upper case, every character
/// that is not a letter or digit as "_"), then in the resources folder, then in PATH. What the
/// environment names is taken or is missing: it never falls through to another tool.
namespace CVToolPaths {

/// The path of an executable file. The error names the tool and the Debian package that has it.
/// Any thread.
LXResult<QString> toolPath(const QString &name);

bool isInstalled(const QString &name);

/// The error for a tool that is not there, for those who look for it themselves.
LXError missingTool(const QString &name, const QString &reason = {});

/// The Debian package that has the tool; empty when not known.
QString packageOfTool(const QString &name);

/// The folder that is searched before PATH; by default share/corvane/tools beside the folder of the
/// executable. Any thread.
QString resourcesFolder();

constexpr const char *errorDomain = "CVToolPaths";

} // namespace CVToolPaths
