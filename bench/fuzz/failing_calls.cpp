// Loaded into a program by LD_PRELOAD: lets one call of a kind fail, the Nth, as a full disk, a lost device
// or an exhausted system would. It counts in the program of the given name only, not in what that one starts.
//
//   CORVANE_FAIL          KIND:N:ERRNO[:+], the kind as in the table of calls below; + also fails all later
//   ones CORVANE_FAIL_IN       the name of the program, as in /proc/self/comm CORVANE_FAIL_BELOW    only
//   calls about what lies below this folder, where a call has a path or a file CORVANE_FAIL_LOG      a file
//   that gets one line for each call that was made to fail
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

// The library's own names for what stdlib.h and the headers may turn into others.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
}

namespace {

// Nothing here may allocate: it also stands in for malloc.
struct Plan
{
    int kind = -1; // as in the table of kinds
    long number = 0;
    int error = 0;
    bool andAllLater = false;
    char below[PATH_MAX] = {};
    size_t belowLength = 0;
    int log = -1;
};

constexpr const char *kinds[] = {"open", "read", "write", "rename", "mkdir",   "remove", "sync", "stat",
                                 "mode", "lock", "dir",   "close",  "process", "thread", "map",  "memory"};
constexpr int kindCount = sizeof kinds / sizeof *kinds;

Plan plan;
bool countsAll = false;
std::atomic<long> calls[kindCount]{};
thread_local bool busy = false;

int kindOf(const char *name)
{
    for (int i = 0; i < kindCount; ++i)
        if (strcmp(kinds[i], name) == 0)
            return i;
    return -1;
}

long raw(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0)
{
    long result;
    register long r10 asm("r10") = d;
    register long r8 asm("r8") = e;
    register long r9 asm("r9") = f;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}

__attribute__((constructor)) void readPlan()
{
    const char *const text = getenv("CORVANE_FAIL");
    const char *const wanted = getenv("CORVANE_FAIL_IN");
    if (!text || !wanted)
        return;
    const int comm = static_cast<int>(raw(SYS_openat, AT_FDCWD, long("/proc/self/comm"), O_RDONLY));
    char name[32] = {};
    const long length = raw(SYS_read, comm, long(name), sizeof name - 1);
    raw(SYS_close, comm);
    if (length <= 0)
        return;
    name[length - 1] = 0; // the newline
    if (strncmp(name, wanted, 15) != 0 || strlen(name) != strnlen(wanted, 15))
        return;
    char sign = 0;
    char kind[16] = {};
    if (sscanf(text, "%15[^:]:%ld:%d:%c", kind, &plan.number, &plan.error, &sign) < 3)
        return;
    countsAll = strcmp(kind, "count") == 0;
    plan.kind = kindOf(kind);
    plan.andAllLater = sign == '+';
    if (const char *const below = getenv("CORVANE_FAIL_BELOW")) {
        strncpy(plan.below, below, sizeof plan.below - 1);
        plan.belowLength = strlen(plan.below);
    }
    // Far from the numbers that programs close in a row.
    if (const char *const log = getenv("CORVANE_FAIL_LOG")) {
        const long file =
            raw(SYS_openat, AT_FDCWD, long(log), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        plan.log = static_cast<int>(raw(SYS_fcntl, file, F_DUPFD_CLOEXEC, 400));
        raw(SYS_close, file);
    }
}

bool isKind(const char *kind)
{
    return !busy && (countsAll || (plan.kind >= 0 && strcmp(kinds[plan.kind], kind) == 0));
}

void logLine(long number, const char *call, const char *what)
{
    if (plan.log < 0)
        return;
    char line[512];
    busy = true;
    const int length = snprintf(line, sizeof line, "%ld %s %s\n", number, call, what);
    busy = false;
    raw(SYS_write, plan.log, long(line), length < int(sizeof line) ? length : long(sizeof line));
}

bool counted(const char *kind, const char *call, const char *what)
{
    const long number = ++calls[kindOf(kind)];
    if (countsAll || (number != plan.number && !(plan.andAllLater && number > plan.number)))
        return false;
    logLine(number, call, what);
    errno = plan.error;
    return true;
}

__attribute__((destructor)) void writeCounts()
{
    for (int i = 0; countsAll && i < kindCount; ++i)
        logLine(calls[i], kinds[i], "");
}

bool isBelow(const char *path)
{
    return strncmp(path, plan.below, plan.belowLength) == 0;
}

/// The path of an open file; empty for pipes and the like.
bool pathOf(int file, char (&path)[PATH_MAX])
{
    char link[40];
    busy = true;
    if (file == AT_FDCWD)
        strcpy(link, "/proc/self/cwd");
    else
        snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    busy = false;
    const long length = raw(SYS_readlink, long(link), long(path), sizeof path - 1);
    if (length <= 0 || path[0] != '/')
        return false;
    path[length] = 0;
    return true;
}

bool failsFor(const char *kind, const char *call, int file)
{
    if (!isKind(kind))
        return false;
    char path[PATH_MAX];
    // Descriptors below three carry the words that tell of a failure.
    return file > 2 && pathOf(file, path) && isBelow(path) && counted(kind, call, path);
}

bool failsFor(const char *kind, const char *call, int folder, const char *path)
{
    if (!isKind(kind) || !path)
        return false;
    char base[PATH_MAX];
    if (path[0] == '/')
        return isBelow(path) && counted(kind, call, path);
    return pathOf(folder, base) && isBelow(base) && counted(kind, call, path);
}

bool failsAnywhere(const char *kind, const char *call)
{
    return isKind(kind) && counted(kind, call, "");
}

template <typename Function> Function *next(Function *, const char *name)
{
    const bool was = busy;
    busy = true;
    auto *const found = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    busy = was;
    return found;
}

} // namespace

#define NEXT(name) static auto *const real = next(&name, #name)

#define WITH_MODE                                                                                            \
    mode_t mode = 0;                                                                                         \
    if (flags & (O_CREAT | O_TMPFILE)) {                                                                     \
        va_list list;                                                                                        \
        va_start(list, flags);                                                                               \
        mode = va_arg(list, mode_t);                                                                         \
        va_end(list);                                                                                        \
    }

extern "C" {

int open(const char *path, int flags, ...)
{
    WITH_MODE
    NEXT(open);
    return failsFor("open", "open", AT_FDCWD, path) ? -1 : real(path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    WITH_MODE
    NEXT(open64);
    return failsFor("open", "open", AT_FDCWD, path) ? -1 : real(path, flags, mode);
}

int openat(int folder, const char *path, int flags, ...)
{
    WITH_MODE
    NEXT(openat);
    return failsFor("open", "openat", folder, path) ? -1 : real(folder, path, flags, mode);
}

int openat64(int folder, const char *path, int flags, ...)
{
    WITH_MODE
    NEXT(openat64);
    return failsFor("open", "openat", folder, path) ? -1 : real(folder, path, flags, mode);
}

FILE *fopen(const char *path, const char *mode)
{
    NEXT(fopen);
    return failsFor("open", "fopen", AT_FDCWD, path) ? nullptr : real(path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    NEXT(fopen64);
    return failsFor("open", "fopen", AT_FDCWD, path) ? nullptr : real(path, mode);
}

long syscall(long number, ...)
{
    va_list list;
    va_start(list, number);
    long a[6];
    for (long &argument : a)
        argument = va_arg(list, long);
    va_end(list);
    const auto *const path = reinterpret_cast<const char *>(a[1]);
    if (number == SYS_openat2 && failsFor("open", "openat2", int(a[0]), path))
        return -1;
    if (number == SYS_renameat2 && failsFor("rename", "renameat2", int(a[0]), path))
        return -1;
    const long result = raw(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (result < 0 && result > -4096) {
        errno = int(-result);
        return -1;
    }
    return result;
}

#define CALL(kind, type, name, parameters, arguments, ...)                                                   \
    type name parameters                                                                                     \
    {                                                                                                        \
        NEXT(name);                                                                                          \
        return failsFor(kind, #name, __VA_ARGS__) ? static_cast<type>(-1) : real arguments;                  \
    }

CALL("read", ssize_t, read, (int file, void *to, size_t size), (file, to, size), file)
CALL("read", ssize_t, pread, (int file, void *to, size_t size, off_t at), (file, to, size, at), file)
CALL("read", ssize_t, pread64, (int file, void *to, size_t size, off64_t at), (file, to, size, at), file)
CALL("read", ssize_t, readv, (int file, const iovec *to, int count), (file, to, count), file)
CALL("write", ssize_t, write, (int file, const void *from, size_t size), (file, from, size), file)
CALL("write", ssize_t, pwrite, (int file, const void *from, size_t size, off_t at), (file, from, size, at),
     file)
CALL("write", ssize_t, pwrite64, (int file, const void *from, size_t size, off64_t at),
     (file, from, size, at), file)
CALL("write", ssize_t, writev, (int file, const iovec *from, int count), (file, from, count), file)
CALL("write", int, ftruncate, (int file, off_t size) noexcept, (file, size), file)
CALL("write", int, ftruncate64, (int file, off64_t size) noexcept, (file, size), file)
CALL("write", int, fallocate, (int file, int mode, off_t at, off_t size), (file, mode, at, size), file)
CALL("write", int, fallocate64, (int file, int mode, off64_t at, off64_t size), (file, mode, at, size), file)
CALL("write", ssize_t, copy_file_range,
     (int from, off64_t *fromAt, int to, off64_t *toAt, size_t size, unsigned flags),
     (from, fromAt, to, toAt, size, flags), to)
CALL("rename", int, rename, (const char *from, const char *to) noexcept, (from, to), AT_FDCWD, from)
CALL("rename", int, renameat, (int a, const char *from, int b, const char *to) noexcept, (a, from, b, to), a,
     from)
CALL("rename", int, renameat2, (int a, const char *from, int b, const char *to, unsigned flags) noexcept,
     (a, from, b, to, flags), a, from)
CALL("rename", int, link, (const char *from, const char *to) noexcept, (from, to), AT_FDCWD, from)
CALL("rename", int, linkat, (int a, const char *from, int b, const char *to, int flags) noexcept,
     (a, from, b, to, flags), a, from)
CALL("mkdir", int, mkdir, (const char *path, mode_t mode) noexcept, (path, mode), AT_FDCWD, path)
CALL("mkdir", int, mkdirat, (int folder, const char *path, mode_t mode) noexcept, (folder, path, mode),
     folder, path)
CALL("mkdir", int, symlink, (const char *target, const char *path) noexcept, (target, path), AT_FDCWD, path)
CALL("mkdir", int, symlinkat, (const char *target, int folder, const char *path) noexcept,
     (target, folder, path), folder, path)
CALL("remove", int, unlink, (const char *path) noexcept, (path), AT_FDCWD, path)
CALL("remove", int, unlinkat, (int folder, const char *path, int flags) noexcept, (folder, path, flags),
     folder, path)
CALL("remove", int, rmdir, (const char *path) noexcept, (path), AT_FDCWD, path)
CALL("sync", int, fsync, (int file), (file), file)
CALL("sync", int, fdatasync, (int file), (file), file)
CALL("sync", int, syncfs, (int file) noexcept, (file), file)
CALL("stat", int, stat, (const char *path, struct stat *to) noexcept, (path, to), AT_FDCWD, path)
CALL("stat", int, stat64, (const char *path, struct stat64 *to) noexcept, (path, to), AT_FDCWD, path)
CALL("stat", int, lstat, (const char *path, struct stat *to) noexcept, (path, to), AT_FDCWD, path)
CALL("stat", int, lstat64, (const char *path, struct stat64 *to) noexcept, (path, to), AT_FDCWD, path)
CALL("stat", int, fstat, (int file, struct stat *to) noexcept, (file, to), file)
CALL("stat", int, fstat64, (int file, struct stat64 *to) noexcept, (file, to), file)
CALL("stat", int, fstatat, (int folder, const char *path, struct stat *to, int flags) noexcept,
     (folder, path, to, flags), folder, path)
CALL("stat", int, fstatat64, (int folder, const char *path, struct stat64 *to, int flags) noexcept,
     (folder, path, to, flags), folder, path)
CALL("stat", int, statx, (int folder, const char *path, int flags, unsigned mask, struct statx *to) noexcept,
     (folder, path, flags, mask, to), folder, path)
CALL("stat", int, access, (const char *path, int mode) noexcept, (path, mode), AT_FDCWD, path)
CALL("stat", int, faccessat, (int folder, const char *path, int mode, int flags) noexcept,
     (folder, path, mode, flags), folder, path)
CALL("stat", ssize_t, readlink, (const char *path, char *to, size_t size) noexcept, (path, to, size),
     AT_FDCWD, path)
CALL("stat", ssize_t, readlinkat, (int folder, const char *path, char *to, size_t size) noexcept,
     (folder, path, to, size), folder, path)
CALL("stat", int, fstatvfs, (int file, struct statvfs *to) noexcept, (file, to), file)
CALL("stat", int, statvfs, (const char *path, struct statvfs *to) noexcept, (path, to), AT_FDCWD, path)
CALL("mode", int, chmod, (const char *path, mode_t mode) noexcept, (path, mode), AT_FDCWD, path)
CALL("mode", int, fchmod, (int file, mode_t mode) noexcept, (file, mode), file)
CALL("mode", int, fchmodat, (int folder, const char *path, mode_t mode, int flags) noexcept,
     (folder, path, mode, flags), folder, path)
CALL("mode", int, futimens, (int file, const timespec *times) noexcept, (file, times), file)
CALL("mode", int, utimensat, (int folder, const char *path, const timespec *times, int flags) noexcept,
     (folder, path, times, flags), folder, path)
CALL("lock", int, flock, (int file, int how) noexcept, (file, how), file)

// What programs call that were built with bounds checked by the C library.
ssize_t __read_chk(int file, void *to, size_t size, size_t)
{
    return read(file, to, size);
}

ssize_t __pread_chk(int file, void *to, size_t size, off_t at, size_t)
{
    return pread(file, to, size, at);
}

ssize_t __pread64_chk(int file, void *to, size_t size, off64_t at, size_t)
{
    return pread64(file, to, size, at);
}

ssize_t __readlink_chk(const char *path, char *to, size_t size, size_t)
{
    return readlink(path, to, size);
}

int __open_2(const char *path, int flags)
{
    return open(path, flags);
}

int __open64_2(const char *path, int flags)
{
    return open64(path, flags);
}

int __openat_2(int folder, const char *path, int flags)
{
    return openat(folder, path, flags);
}

int __openat64_2(int folder, const char *path, int flags)
{
    return openat64(folder, path, flags);
}

DIR *opendir(const char *path)
{
    NEXT(opendir);
    return failsFor("dir", "opendir", AT_FDCWD, path) ? nullptr : real(path);
}

DIR *fdopendir(int folder)
{
    NEXT(fdopendir);
    return failsFor("dir", "fdopendir", folder) ? nullptr : real(folder);
}

dirent *readdir(DIR *folder)
{
    NEXT(readdir);
    return failsFor("dir", "readdir", dirfd(folder)) ? nullptr : real(folder);
}

dirent64 *readdir64(DIR *folder)
{
    NEXT(readdir64);
    return failsFor("dir", "readdir", dirfd(folder)) ? nullptr : real(folder);
}

// Closes all the same, as the kernel does; what was written before is what may be lost.
int close(int file)
{
    NEXT(close);
    const bool fails = failsFor("close", "close", file);
    const int result = real(file);
    if (!fails)
        return result;
    errno = plan.error;
    return -1;
}

int pipe2(int ends[2], int flags) noexcept
{
    NEXT(pipe2);
    return failsAnywhere("process", "pipe2") ? -1 : real(ends, flags);
}

pid_t fork() noexcept
{
    NEXT(fork);
    return failsAnywhere("process", "fork") ? -1 : real();
}

int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                const posix_spawnattr_t *attributes, char *const words[], char *const environment[])
{
    NEXT(posix_spawn);
    return failsAnywhere("process", "posix_spawn") ? plan.error
                                                   : real(pid, path, actions, attributes, words, environment);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                   void *data) noexcept
{
    NEXT(pthread_create);
    return failsAnywhere("thread", "pthread_create") ? EAGAIN : real(thread, attributes, start, data);
}

void *mmap(void *wish, size_t size, int rights, int flags, int file, off_t at) noexcept
{
    if (failsAnywhere("map", "mmap"))
        return MAP_FAILED;
    const long result = raw(SYS_mmap, long(wish), long(size), rights, flags, file, at);
    if (result < 0 && result > -4096) {
        errno = int(-result);
        return MAP_FAILED;
    }
    return reinterpret_cast<void *>(result);
}

void *mmap64(void *wish, size_t size, int rights, int flags, int file, off64_t at) noexcept
{
    return mmap(wish, size, rights, flags, file, at);
}

// Small blocks are never refused in earnest (the system ends somebody instead); buffers and tables are.
constexpr size_t largeBlock = 32 * 1024;

void *malloc(size_t size) noexcept
{
    return size >= largeBlock && failsAnywhere("memory", "malloc") ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    return count * size >= largeBlock && failsAnywhere("memory", "calloc") ? nullptr
                                                                           : __libc_calloc(count, size);
}

void *realloc(void *old, size_t size) noexcept
{
    return size >= largeBlock && failsAnywhere("memory", "realloc") ? nullptr : __libc_realloc(old, size);
}

} // extern "C"
