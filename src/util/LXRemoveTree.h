#pragma once

#include "util/LXResult.h"

#include <QByteArray>
#include <QString>

#include <stop_token>

/// Removes the item and, for a folder, everything beneath it.
///
/// Everything is reached from descriptors of folders that were opened without following a link, so
/// whatever is renamed or replaced meanwhile, nothing outside the tree is touched. Folders of ours that
/// forbid reading or writing are opened up first. Other file systems mounted inside are left alone.
/// What can be removed is removed even when something else cannot; the first failure is the error, with
/// the errno as code in the domain "NSPOSIXErrorDomain". An item that does not exist is such a failure
/// (ENOENT).
/// Cost: one descriptor at any depth, no look at what is a plain file, and memory for the names of the
/// folders on the way only. A stop leaves the rest in place (ECANCELED).
LXResult<void> removeTree(const QString &path, std::stop_token stop = {});

/// The same for the item `name` of the open folder `folder`.
LXResult<void> removeTreeAt(int folder, const QByteArray &name, std::stop_token stop = {});
