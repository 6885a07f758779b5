#pragma once

#include <QString>

/// A string that no other call, process or machine gives. Letters, digits and "-". Any thread.
QString uniqueString();
