#pragma once

#include "platform/LXFileViewer.h"

/// org.freedesktop.FileManager1 on the session bus; without it, the default application for folders.
class LXBusFileViewer final : public LXFileViewer
{
public:
    void reveal(const QStringList &paths) override;
};
