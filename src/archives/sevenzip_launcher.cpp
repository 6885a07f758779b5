// The "7za" that Corvane starts. A password in the arguments of a program can be read by every user of the
// machine for as long as the program runs. This one takes it off its arguments as the very first thing that
// it does and becomes the real tool, which finds the password in a pipe on its standard input. Where
// CORVANE_OWN_ZIP is set it becomes, for a new zip archive, the program of ours that lies beside it and works
// on all cores: a choice until that one has been compared with 7-Zip on enough trees to be the first.
//
// Linked statically, and entered before the C library has set itself up, because every microsecond between
// the start and the erasing counts. So nothing before main() may call anything or expect a working library.
#include "archives/zip/zip_line.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Twice this and two line ends go into a pipe that nobody reads yet; it takes 64 KiB.
constexpr unsigned long maxPasswordBytes = 4096;

char password[maxPasswordBytes];
unsigned long passwordBytes = 0; // may say more than there is room for
bool hasPassword = false;
bool taken = false;

[[noreturn]] void fail(const char *text)
{
    std::fprintf(stderr, "%s\n", text);
    std::_Exit(127);
}

bool isProgram(const char *path, const struct stat &self)
{
    struct stat info;
    return ::stat(path, &info) == 0 && S_ISREG(info.st_mode) && ::access(path, X_OK) == 0 &&
           (info.st_dev != self.st_dev || info.st_ino != self.st_ino);
}

/// The tool itself: what CORVANE_REAL_7ZA names, or the first one in PATH that is not this program.
bool findTool(char (&path)[4096])
{
    struct stat self = {};
    ::stat("/proc/self/exe", &self);
    if (const char *given = std::getenv("CORVANE_REAL_7ZA"); given && *given)
        return std::snprintf(path, sizeof path, "%s", given) < static_cast<int>(sizeof path) &&
               isProgram(path, self);
    const char *const folders = std::getenv("PATH");
    for (const char *name : {"7za", "7zz", "7z"}) {
        for (const char *folder = folders; folder && *folder;) {
            const int length = static_cast<int>(std::strcspn(folder, ":"));
            // An empty or relative one would mean the folder that is being packed.
            if (*folder == '/' &&
                std::snprintf(path, sizeof path, "%.*s/%s", length, folder, name) <
                    static_cast<int>(sizeof path) &&
                isProgram(path, self))
                return true;
            folder += length + (folder[length] == ':');
        }
    }
    return false;
}

/// Our own program, if it does what is wanted. It makes new archives only, in folders that are there.
bool findZip(int argc, char **argv, char (&path)[4096])
{
    ZipLine line;
    if (!std::getenv("CORVANE_OWN_ZIP") || std::getenv("CORVANE_REAL_7ZA") ||
        !readZipLine(argc, argv, line) || line.isEncrypted != hasPassword)
        return false;
    struct stat info;
    if (std::snprintf(path, sizeof path, "%s.001", line.archive) >= static_cast<int>(sizeof path) ||
        ::lstat(path, &info) == 0 || ::lstat(line.archive, &info) == 0)
        return false;
    if (char *const slash = std::strrchr(path, '/')) {
        slash[1] = '\0';
        if (::access(path, W_OK) != 0)
            return false;
    }
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return false;
    path[length] = '\0';
    char *const name = std::strrchr(path, '/') + 1;
    constexpr char zip[] = "corvane-zip";
    if (static_cast<unsigned long>(name - path) + sizeof zip > sizeof path)
        return false;
    std::memcpy(name, zip, sizeof zip);
    return ::access(path, X_OK) == 0;
}

/// Standard input becomes a pipe that holds the password as often as it is asked for.
void handOverPassword()
{
    if (passwordBytes > maxPasswordBytes)
        fail("The password is too long to be handed to 7za.");
    if (std::memchr(password, '\n', passwordBytes))
        fail("A password with a line break cannot be handed to 7za.");
    int ends[2];
    if (::pipe(ends) != 0)
        fail("The password could not be handed to 7za.");
    for (int time = 0; time < 2; ++time)
        if (::write(ends[1], password, passwordBytes) != static_cast<ssize_t>(passwordBytes) ||
            ::write(ends[1], "\n", 1) != 1)
            fail("The password could not be handed to 7za.");
    ::explicit_bzero(password, sizeof password);
    ::close(ends[1]);
    if (ends[0] != STDIN_FILENO) {
        if (::dup2(ends[0], STDIN_FILENO) < 0)
            fail("The password could not be handed to 7za.");
        ::close(ends[0]);
    }
}

} // namespace

/// `stack` is what the kernel left: the count of arguments, then their pointers. The stack is not guarded
/// yet.
extern "C" [[gnu::used, gnu::no_stack_protector]] void corvaneTakePassword(unsigned long *stack)
{
    taken = true;
    const unsigned long count = *stack;
    char **const arguments = reinterpret_cast<char **>(stack + 1);
    for (unsigned long i = 1; i < count; ++i) {
        char *text = arguments[i];
        if (text[0] != '-' || text[1] != 'p' || text[2] == '\0')
            continue;
        hasPassword = true;
        passwordBytes = 0;
        for (text += 2; *text; ++text, ++passwordBytes) {
            if (passwordBytes < maxPasswordBytes)
                password[passwordBytes] = *text;
            *static_cast<volatile char *>(text) = '\0';
        }
    }
}

// The entry point: takes the password, then goes on where a program usually begins. The register that is
// kept over the call is the one that the start code of the C library expects something in.
#if defined(__x86_64__)
asm(R"(
    .globl corvaneStart
    .type corvaneStart, @function
corvaneStart:
    mov %rsp, %rdi
    mov %rdx, %rbx
    call corvaneTakePassword
    mov %rbx, %rdx
    jmp _start
)");
#elif defined(__aarch64__)
asm(R"(
    .globl corvaneStart
    .type corvaneStart, %function
corvaneStart:
    mov x19, x0
    mov x0, sp
    bl corvaneTakePassword
    mov x0, x19
    b _start
)");
#endif

int main(int argc, char **argv)
{
    if (!taken) // linked without the entry point above
        corvaneTakePassword(reinterpret_cast<unsigned long *>(argv) - 1);
    // The shell between us ends with Corvane, however that ends, and the tool must not go on alone.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_DUMPABLE, 0); // neither memory nor environment for anybody else until the tool takes over
    ::unsetenv("CORVANE_PASSWORD");
    static char path[4096];
    if (!findZip(argc, argv, path) && (argc < 1 || !findTool(path)))
        fail("The tool “7za” is not installed. Install the package “p7zip-full”.");
    if (hasPassword)
        handOverPassword();
    argv[0] = path;
    ::execv(path, argv);
    std::fprintf(stderr, "The tool “7za” could not be started: %s: %s\n", path, std::strerror(errno));
    return 127;
}
