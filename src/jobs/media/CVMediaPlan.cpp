#include "jobs/media/CVMediaPlan.h"

#include "jobs/media/CVMediaTypes.h"
#include "util/LXFileDescriptor.h"

#include <QHash>
#include <QSet>

#include <algorithm>
#include <limits>
#include <memory>

#include <dirent.h>
#include <fcntl.h>

namespace {

/// Folders further up than this are opened again on the way back.
constexpr std::size_t openFolders = 128;

constexpr std::size_t noNumber = std::numeric_limits<std::size_t>::max();

/// A folder, or a file that is converted.
struct Entry
{
    QByteArray name;
    QByteArray target; ///< empty: a folder
    bool isSound = false;
};

struct Level
{
    QByteArray path;
    LXFileDescriptor folder;
    struct stat facts;
    std::vector<Entry> entries = {}; ///< in order
    std::size_t next = 0;
    std::size_t number = noNumber; ///< in the plan
};

struct DirectoryClose
{
    void operator()(DIR *directory) const { ::closedir(directory); }
};

class Planner
{
public:
    Planner(CVMediaPlan &plan, int imageType, int audioType)
        : m_plan(plan)
        , m_imageType(imageType)
        , m_audioType(audioType)
    {}

    void run(LXFileDescriptor root, const std::stop_token &stop)
    {
        enter({}, std::move(root));
        while (!m_levels.empty() && !stop.stop_requested()) {
            Level &level = m_levels.back();
            if (level.next == level.entries.size()) {
                leave();
                continue;
            }
            const Entry entry = std::move(level.entries[level.next++]);
            if (!entry.target.isEmpty()) {
                add(level, entry);
                continue;
            }
            enter(CVMediaPlan::pathOf(level.path, entry.name),
                  LXFileDescriptor(::openat(level.folder.get(), entry.name.constData(),
                                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
            if (m_levels.size() > openFolders)
                m_levels[m_levels.size() - 1 - openFolders].folder.reset();
        }
    }

private:
    void enter(const QByteArray &path, LXFileDescriptor folder);
    void leave();
    void planFiles(Level &level, std::vector<QByteArray> files, QSet<QByteArray> taken);
    void add(Level &level, const Entry &file);

    CVMediaPlan &m_plan;
    int m_imageType;
    int m_audioType;
    std::vector<Level> m_levels;
};

void Planner::enter(const QByteArray &path, LXFileDescriptor folder)
{
    Level level{path, std::move(folder), {}};
    if (!level.folder.isOpen() || ::fstat(level.folder.get(), &level.facts) != 0)
        return;
    const int copy = ::openat(level.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, DirectoryClose> directory(copy >= 0 ? ::fdopendir(copy) : nullptr);
    if (!directory) {
        if (copy >= 0)
            ::close(copy);
        return;
    }
    std::vector<QByteArray> files;
    QSet<QByteArray> names;
    while (const dirent *item = ::readdir(directory.get())) {
        const QByteArray name(item->d_name);
        if (name == "." || name == "..")
            continue;
        ++m_plan.paths;
        names.insert(name);
        unsigned char type = item->d_type;
        if (type == DT_UNKNOWN) {
            struct stat facts
            {};
            if (::fstatat(level.folder.get(), item->d_name, &facts, AT_SYMLINK_NOFOLLOW) == 0)
                type = static_cast<unsigned char>(IFTODT(facts.st_mode));
        }
        if (type == DT_DIR)
            level.entries.push_back({name, {}, false});
        else if (type == DT_REG)
            files.push_back(name);
    }
    planFiles(level, std::move(files), std::move(names));
    std::sort(level.entries.begin(), level.entries.end(),
              [](const Entry &a, const Entry &b) { return a.name < b.name; });
    m_levels.push_back(std::move(level));
}

/// Gives the new files of a folder their names, as one after another would get them. A source that is
/// gone by then makes no room: its extension is not the one that is wanted.
void Planner::planFiles(Level &level, std::vector<QByteArray> files, QSet<QByteArray> taken)
{
    std::sort(files.begin(), files.end());
    QHash<QByteArray, qint64> counters; // of names that were wanted more than once
    for (const QByteArray &name : files) {
        const QByteArray path = CVMediaPlan::pathOf(level.path, name);
        const auto kind = CVMediaTypes::kindOfFile(path, m_imageType, m_audioType);
        if (kind == CVMediaTypes::Kind::None)
            continue;
        const bool isSound = kind == CVMediaTypes::Kind::Audio;
        const QByteArray extension =
            (isSound ? CVMediaTypes::audioExtension(m_audioType) : CVMediaTypes::imageExtension(m_imageType))
                .toLatin1();
        const QByteArray wanted = CVMediaTypes::nameWithExtension(name, extension);
        QByteArray target = wanted;
        if (target != name && taken.contains(target)) {
            qint64 &counter = counters[wanted];
            counter = std::max<qint64>(counter, 1);
            do
                target = CVMediaTypes::nameWithExtension(name, extension, ++counter);
            while (taken.contains(target));
        }
        taken.insert(target);
        level.entries.push_back({name, target, isSound});
    }
}

void Planner::add(Level &level, const Entry &file)
{
    if (level.number == noNumber) {
        level.number = m_plan.folders.size();
        m_plan.folders.push_back({level.path, level.facts});
    }
    m_plan.jobs.push_back({level.number, file.name, file.target, file.isSound});
}

void Planner::leave()
{
    const Level done = std::move(m_levels.back());
    m_levels.pop_back();
    if (m_levels.empty() || m_levels.back().folder.isOpen())
        return;
    Level &above = m_levels.back();
    LXFileDescriptor folder(::openat(done.folder.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat facts
    {};
    // Where the tree was moved about meanwhile, what is left of that folder is passed over.
    if (folder.isOpen() && ::fstat(folder.get(), &facts) == 0 && facts.st_ino == above.facts.st_ino &&
        facts.st_dev == above.facts.st_dev)
        above.folder = std::move(folder);
    else
        above.next = above.entries.size();
}

} // namespace

CVMediaPlan CVMediaPlan::make(int root, int imageType, int audioType, const std::stop_token &stop)
{
    CVMediaPlan plan;
    Planner(plan, imageType, audioType)
        .run(LXFileDescriptor(::openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), stop);
    return plan;
}

QByteArray CVMediaPlan::pathOf(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}
