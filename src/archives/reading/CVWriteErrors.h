#pragma once

#include <cerrno>

/// What an error of the file system says about the entry that met it.
///
/// Only errors that are about this one name, type or size leave the entry out: another file system, or
/// another entry, would not have met them. Everything else (no space, no quota, no descriptors, no memory, a
/// disk that fails, a server that is gone, a folder that may not be written to) every further entry would
/// meet as well, so it ends the job; an extraction without them would look like a whole one.
[[nodiscard]] inline bool isAboutOneEntry(int error)
{
    switch (error) {
    case ENAMETOOLONG:
    case EINVAL: // a name, time or size that the file system does not know
    case EILSEQ:
    case EEXIST:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case EXDEV: // a mount point within the destination
    case EPERM: // a file system without links
    case EOPNOTSUPP:
    case ENOSYS:
    case EMLINK:
    case EFBIG:
    case EOVERFLOW:
        return true;
    default:
        return false;
    }
}

/// Something that is not a folder is on the way, or where a folder should be.
[[nodiscard]] inline bool isInTheWay(int error)
{
    return error == ENOTDIR || error == ELOOP || error == EEXIST;
}
