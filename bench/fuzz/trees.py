"""What lies in a folder, as a value that can be compared."""
import hashlib
import os
import shutil
import stat
import time

SMALL = 1 << 20
started = time.time() - 60


def look(folder, relative=b""):
    """relative path → (kind, mode, mtime, what): the hash of a file, the target of a link."""
    found = {}
    pending = [(os.fsencode(folder), b"")]
    while pending:
        path, name = pending.pop()
        try:
            entries = list(os.scandir(path))
        except PermissionError:
            found[name + b"/"] = ("unreadable", 0, 0, b"")
            continue
        for entry in entries:
            inner = name + b"/" + entry.name if name else entry.name
            status = entry.stat(follow_symlinks=False)
            mode = stat.S_IMODE(status.st_mode)
            modified = int(status.st_mtime) if status.st_mtime < started else 0  # else it is the time of the run
            if stat.S_ISLNK(status.st_mode):
                found[inner] = ("link", 0, 0, os.readlink(entry.path))
            elif stat.S_ISDIR(status.st_mode):
                found[inner] = ("folder", mode, modified, b"")
                pending.append((entry.path, inner))
            elif stat.S_ISREG(status.st_mode):
                found[inner] = ("file", mode, modified, contents(entry.path, status))
            else:
                found[inner] = ("special", mode, 0, b"")
    return found


def contents(path, status):
    if status.st_size > SMALL:  # a bomb below its limit: its size will do
        return b"%d bytes" % status.st_size
    with open(path, "rb") as file:
        return hashlib.sha1(file.read()).digest()


def bytes_in(folder):
    return sum(os.lstat(os.path.join(root, name)).st_blocks * 512 for root, _, names in os.walk(folder) for name in names)


def remove(folder):
    def free(function, path, _):
        os.chmod(os.path.dirname(path), 0o700)
        os.chmod(path, 0o700, follow_symlinks=False) if not os.path.islink(path) else None
        function(path)

    shutil.rmtree(folder, onerror=free)
