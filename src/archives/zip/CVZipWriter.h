#pragma once

#include "archives/zip/CVZipRecords.h"
#include "archives/zip/CVZipTree.h"
#include "archives/zip/CVZipVolumes.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class CVZipCipher;

/// Packs the current folder into a zip archive. One thread walks; others read and compress, small files by
/// the group and large ones in pieces, and what they have done goes into the archive in the order of the
/// walk. So the archive depends on the files alone, not on the number of threads. What does not shrink is
/// stored. Memory is bounded, but for what the archive says about each entry.
class CVZipWriter
{
public:
    struct Options
    {
        int level = 5; ///< 0 to 9, as of the tool of 7-Zip
        std::optional<std::string> password;
        unsigned threads = 0; ///< 0: one a core
    };
    /// What could not be read and is not in the archive, or why there is none. Any thread.
    using Complain = std::function<void(int error, const std::string &path)>;

    CVZipWriter(CVZipVolumes &volumes, Options options, Complain left);
    ~CVZipWriter();

    /// 0 or the errno because of which the archive is not complete; `failedPath` is the file that it came
    /// from, empty for the archive itself. Once.
    int pack();
    const std::string &failedPath() const { return m_failedPath; }

private:
    struct Large;
    struct Unit;
    class Tools;

    bool visit(CVZipTree::Node &&node);
    bool addLarge(CVZipEntry &&entry);
    bool addGroup();
    bool push(std::unique_ptr<Unit> unit);

    void work();
    bool claim(std::unique_lock<std::mutex> &lock, Tools &tools);
    void packGroup(Unit &unit, Tools &tools) const;
    int packFile(CVZipEntry &entry, char *to, Tools &tools) const;
    int storeLink(CVZipEntry &entry, char *to) const;
    int encrypt(CVZipEntry &entry, char *head) const;
    void packPiece(Unit &unit, Tools &tools) const;

    void commit(std::unique_lock<std::mutex> &lock);
    int commitGroup(Unit &unit);
    int commitPiece(Unit &unit);
    int beginLarge(Large &large);
    int endLarge(Large &large);
    void addToCentral(const CVZipEntry &entry);
    int writeEnd();
    void fail(int error, const std::string &path);

    CVZipVolumes &m_volumes;
    const Options m_options;
    const Complain m_left;
    std::unique_ptr<Unit> m_group; ///< that is being gathered

    // Of whoever commits.
    std::deque<std::string> m_central; ///< in blocks, so that it never has to be copied
    std::uint64_t m_entries = 0;

    std::mutex m_mutex; // what follows
    std::condition_variable m_changed;
    std::deque<std::unique_ptr<Unit>> m_units; ///< that are not in the archive yet
    std::size_t m_claimed = 0;                 ///< of these, from the front
    std::size_t m_bytesAhead = 0;              ///< that they need
    bool m_isWalked = false;
    bool m_isCommitting = false;
    int m_error = 0;
    std::string m_failedPath;
};
