#pragma once

#include "archives/reading/XADTypes.h"
#include "filetree/CVFileNode.h"
#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <stop_token>
#include <utility>
#include <vector>

#include <sys/stat.h>

/// What is to be packed, and the folder in which a back end finds it: hard links to a person's files, or
/// copies where linking is not possible (another file system, files of other people), below folders of
/// our own. Nothing is left out in silence: what cannot be read stops the job before anything is made, what
/// cannot be packed at all (FIFOs, sockets, devices) is in skipped().
///
/// Use: read(), before any folder of the job is made, so that none of them is packed; leaveOut();
/// linkInto(); then whatever else changes the tree; applyFolderAttributes(); pack; changedFiles().
/// Two items given with the same last component, from different folders, both get in: the later one as
/// "name 2". Names are bytes. Costs a few system calls an item and memory for its path.
/// Thread: a worker.
class CVPackingTree
{
public:
    explicit CVPackingTree(std::stop_token stop)
        : m_stop(std::move(stop))
    {}

    /// Looks at the visible nodes below the root. The error names the first items that cannot be read
    /// and says how many there are. A stop gives no error.
    LXResult<void> read(const CVFileNode &root);

    /// Leaves out what is at this path, unless the person named it: an older archive that the new one
    /// replaces, where it lies in a folder that is packed. It is in skipped() then.
    void leaveOut(const QString &path);

    /// True when the path is one of the items given, or a folder around one.
    bool isInputOrAbove(const QString &path) const;

    bool isEmpty() const { return m_items.empty(); }

    /// Fills the folder, which exists and is empty. `itemDone` is called for each item. A stop gives no
    /// error and an incomplete tree.
    LXResult<void> linkInto(const QString &folder, const std::function<void()> &itemDone);

    /// Owners, modes and times of folders, which would not hold while things are still put into them.
    LXResult<void> applyFolderAttributes();

    /// Items whose contents changed while they were packed, as paths within the archive.
    QStringList changedFiles() const;

    const std::vector<CVSkippedEntry> &skipped() const { return m_skipped; }

    /// errno of the first failure of linkInto() that was about writing, else 0.
    int systemError() const { return m_systemError; }

private:
    enum class Kind : std::uint8_t { Folder, File, Link };
    struct Identity
    {
        dev_t device;
        ino_t inode;
        auto operator<=>(const Identity &) const = default;
    };
    struct State
    {
        off_t size = 0;
        std::int64_t changedNs = 0;
        bool operator==(const State &) const = default;
    };
    struct Item
    {
        CVFileNode::Pointer node; ///< knows where it is now
        QByteArray path;          ///< where it goes, below the folder
        Identity identity;
        State state;           ///< when it was put into the folder
        std::size_t facts = 0; ///< of a folder: place in m_folderFacts
        Kind kind = Kind::File;
        bool given = false;           ///< by the person, not found in a folder
        bool hasSeveralNames = false; ///< hard links
        bool isLinked = false;        ///< changes of the original are changes of ours
        bool isChanged = false;       ///< while it was copied
    };
    struct Problems;

    static QByteArray sourceOf(const CVFileNode &node);
    static State stateOf(const struct stat &facts);
    QByteArray uniqueTopName(const QByteArray &source);
    bool add(const CVFileNode::Pointer &node, const QByteArray &path, bool given, Problems &problems);
    bool hasChanged(const Item &item) const;
    int put(Item &item);
    LXError linkError(const Item &item, int failure);

    std::stop_token m_stop;
    std::vector<Item> m_items; ///< in pre-order
    std::vector<CVSkippedEntry> m_skipped;
    std::set<QByteArray> m_topNames;
    std::map<QByteArray, int> m_topCounters;
    std::vector<struct stat> m_folderFacts;
    LXFileDescriptor m_folder;
    std::map<Identity, QByteArray> m_copies; ///< of files with several names, by their first copy
    int m_systemError = 0;
};
