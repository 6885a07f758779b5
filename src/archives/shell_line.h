#pragma once

#include <QString>

/// For a place between double quotes in a line for the shell, the quotes included: a hostile name stays a
/// name, an ordinary one is unchanged. Any thread.
QString inShellQuotes(QString text);
