"""Runs the program in a home of its own, with limits, and tells how it ended and what it left running."""
import ctypes
import os
import pwd
import resource
import select
import signal
import stat
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

PR_SET_CHILD_SUBREAPER = 36
FILE_LIMIT = 3 << 30


@dataclass
class Run:
    status: int  # below zero: the signal that ended it
    out: bytes
    err: bytes
    seconds: float
    peak_kib: int
    hung: bool
    left_running: list  # the names of processes that outlived it


def all_may_reach(path):
    return all(os.stat(folder).st_mode & stat.S_IXOTH for folder in [path, *Path(path).parents])


class Program:
    """One for each process that runs things: it takes over the processes that the program leaves behind."""

    def __init__(self, path, home, time_limit):
        self.path = path
        self.home = home
        self.time_limit = time_limit
        ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_LIMIT, FILE_LIMIT))  # inherited
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        # Whatever gets out of its folder does so with the rights of nobody.
        self.user = pwd.getpwnam("nobody") if os.geteuid() == 0 and all_may_reach(path) else None
        self.environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "TZ": "UTC", "QT_QPA_PLATFORM": "offscreen", "HOME": str(home)}
        for name, folder in (("XDG_CONFIG_HOME", "config"), ("XDG_CACHE_HOME", "cache"), ("XDG_DATA_HOME", "data"),
                             ("XDG_STATE_HOME", "state"), ("XDG_RUNTIME_DIR", "runtime"), ("TMPDIR", "tmp")):
            path = home / folder
            path.mkdir(parents=True, mode=0o700)
            self.own(path)
            self.environment[name] = str(path)
        self.own(home)
        for name in os.environ:
            if name.endswith("SAN_OPTIONS"):
                self.environment[name] = os.environ[name]

    def own(self, path):
        if self.user:
            os.chown(path, self.user.pw_uid, self.user.pw_gid)

    def run(self, words, folder, password="", environment=None):
        out_path, err_path = self.home / "stdout", self.home / "stderr"
        values = self.environment | (environment or {})
        if password:
            values["CORVANE_PASSWORD"] = password
        who = {"user": self.user.pw_uid, "group": self.user.pw_gid, "extra_groups": []} if self.user else {}
        started = time.monotonic()
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            child = subprocess.Popen([str(self.path), *words], stdin=subprocess.DEVNULL, stdout=out, stderr=err, cwd=folder, env=values,
                                     start_new_session=True, **who)
        handle = os.pidfd_open(child.pid)
        hung = False
        try:
            ready, _, _ = select.select([handle], [], [], self.time_limit)
            if not ready:
                hung = True
                os.killpg(child.pid, signal.SIGKILL)
        finally:
            os.close(handle)
        _, status, usage = os.wait4(child.pid, 0)
        child.returncode = os.waitstatus_to_exitcode(status)
        seconds = time.monotonic() - started
        left = self.orphans()
        return Run(child.returncode, out_path.read_bytes(), err_path.read_bytes(), seconds, usage.ru_maxrss, hung, left)

    def orphans(self):
        """What still runs a moment after its parent is gone; it is ended here."""
        until = time.monotonic() + 2
        while time.monotonic() < until:
            try:
                if os.waitpid(-1, os.WNOHANG)[0] == 0:
                    time.sleep(0.005)
            except ChildProcessError:
                return []
        left = []
        with open(f"/proc/self/task/{os.getpid()}/children") as children:
            for pid in children.read().split():
                try:
                    with open(f"/proc/{pid}/cmdline", "rb") as line:
                        left.append(line.read().replace(b"\0", b" ").decode(errors="replace").strip() or pid)
                    os.kill(int(pid), signal.SIGKILL)
                    os.waitpid(int(pid), 0)
                except OSError:
                    pass
        return left
