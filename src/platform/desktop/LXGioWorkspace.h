#pragma once

#include "platform/LXWorkspace.h"

/// Default applications through GIO.
class LXGioWorkspace final : public LXWorkspace
{
public:
    bool openFile(const QString &path) override;
};
