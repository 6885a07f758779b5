#include "support/CreateSupport.h"

#include "util/LXChildProcess.h"
#include "util/LXFileName.h"

#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

QStringList ArchiveRecorder::events() const
{
    const std::lock_guard lock(m_mutex);
    return m_events;
}

void ArchiveRecorder::add(const QString &event)
{
    const std::lock_guard lock(m_mutex);
    m_events << event;
}

ToolOutput runTool(const QString &program, const QStringList &arguments, const QString &folder,
                   const QByteArray &input)
{
    LXChildOptions options;
    options.program = program;
    options.arguments = arguments;
    options.workingFolder = folder;
    options.input = LXChildOptions::Stream::Pipe;
    options.error = LXChildOptions::Stream::Merge;
    auto child = LXChildProcess::start(options);
    if (!child)
        return {-1, child.error().reason.toUtf8()};
    child.value()->write(input.constData(), input.size());
    child.value()->closeInput();
    ToolOutput output;
    for (auto chunk = child.value()->read(); chunk.kind != LXChildProcess::Chunk::Kind::Closed;
         chunk = child.value()->read())
        output.text += chunk.data;
    const auto exit = child.value()->wait();
    output.status = exit->normal ? exit->status : 128 + exit->status;
    return output;
}

bool writeTestFile(const QString &path, const QByteArray &data, mode_t mode)
{
    const QByteArray name = bytesOfFileName(path);
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0)
        return false;
    const bool written =
        ::write(fd, data.constData(), static_cast<std::size_t>(data.size())) == data.size() &&
        ::fchmod(fd, mode) == 0;
    return ::close(fd) == 0 && written;
}

QByteArray testFileContents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList folderNames(const QString &folder)
{
    QStringList names;
    DIR *const dir = ::opendir(bytesOfFileName(folder).constData());
    if (!dir)
        return names;
    while (const dirent *entry = ::readdir(dir))
        if (const QByteArray name = entry->d_name; name != "." && name != "..")
            names << fileNameFromBytes(name);
    ::closedir(dir);
    names.sort();
    return names;
}

QByteArray noise(qsizetype bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    quint64 state = 1;
    for (char &c : data)
        c = static_cast<char>((state = state * 6364136223846793005ULL + 1442695040888963407ULL) >> 56);
    return data;
}

QByteArray hostileName()
{
    return "h \"q\" 'a' $(touch bad) `touch bad` \\ \n \xff\xfe\x81\x88 *?[x] -";
}

bool makeHostileTree(const QString &folder)
{
    const auto at = [root = bytesOfFileName(folder)](const QByteArray &name) -> QByteArray {
        return root + '/' + name;
    };
    const auto make = [&](const QByteArray &name, mode_t mode) {
        return ::mkdir(at(name).constData(), 0700) == 0 && ::chmod(at(name).constData(), mode) == 0;
    };
    const auto write = [&](const QByteArray &name, const QByteArray &data, mode_t mode = 0644) {
        return writeTestFile(fileNameFromBytes(at(name)), data, mode);
    };
    ::mkdir(bytesOfFileName(folder).constData(), 0755);
    bool made = make("empty", 0700) && make("d\xfe", 0755) && make("read only", 0555) &&
                write("d\xfe/run", "x", 0755) && write(".dot", noise(200'000), 0600) &&
                write("no bytes", "") && write("secret", "s", 0400) &&
                ::symlink("plain", at("link").constData()) == 0 &&
                ::symlink("no/such", at("dangling").constData()) == 0;
    for (const QByteArray &name :
         {QByteArray("plain"), QByteArray("two words"), QByteArray("q\"uote's"), QByteArray("$HOME `x` $(y)"),
          QByteArray("new\nline"), QByteArray("back\\slash"), QByteArray("not\xff\x81utf8"),
          QByteArray("\xc3\xa4\xe6\xbc\xa2"), QByteArray(255, 'L'), QByteArray("-p"), QByteArray("@list"),
          QByteArray("*"), QByteArray("esc\x1b[1m"), QByteArray("C:x"), QByteArray("end "),
          QByteArray("end.")})
        made = write(name, "of " + name) && made;
    return made;
}

bool separateMounts()
{
    return ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool mountSmallDisk(const QString &folder, const char *size)
{
    return ::mount("tmpfs", bytesOfFileName(folder).constData(), "tmpfs", 0,
                   QByteArray("size=" + QByteArray(size)).constData()) == 0;
}

void unmountSmallDisk(const QString &folder)
{
    ::umount(bytesOfFileName(folder).constData());
}
