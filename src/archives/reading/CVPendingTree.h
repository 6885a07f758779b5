#pragma once

#include "archives/reading/CVDestination.h"
#include "archives/reading/XADTypes.h"

#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

/// What is made of an extracted tree when all its files are there: hard links, then symbolic ones, then the
/// modes and times of folders, deepest first. Nothing can be written through a link that comes last, and a
/// folder that its owner may not change, or that keeps others out, stays 0700 until there is nothing more to
/// be put into it.
///
/// Paths are relative to the destination and through CVSafePath. Thread: adding from any, finish() once.
class CVPendingTree
{
public:
    struct Link
    {
        int entry = 0;
        QByteArray path;
        QByteArray target; ///< as stored; for hard links the safe path of the original
        qint64 modified = XADEntry::unknownTime;
        bool hard = false;
    };
    struct Folder
    {
        QByteArray path;
        std::uint32_t mode = 0;
        qint64 modified = XADEntry::unknownTime;
    };

    /// Who hears what could not be made.
    struct Report
    {
        std::function<void(int entry, XADErrorCode code, const QString &reason)> entry;
        /// An errno; the entry is below zero where it is about none.
        std::function<void(int entry, int error)> system;
        std::function<bool()> shouldStop;
    };

    /// `laterReplaces`: of two links of one name the second one stays.
    CVPendingTree(CVDestination &destination, bool laterReplaces, Report report);

    void add(Link link);
    void add(Folder folder);

    /// Links are left out after a failure, when nothing of the tree is wanted any more.
    void finish(bool withLinks, std::uint32_t modeOfMadeFolders);

private:
    using Made = std::unordered_map<std::string, Link>;

    void makeHardLinks();
    /// False: its original is not there (yet).
    bool makeHardLink(const Link &link);
    void makeSymlinks();
    void makeSymlink(Link &link, Made &made);
    void removeLeavingLinks(const Made &made);
    void setFolders(std::uint32_t modeOfMadeFolders);

    CVDestination &m_destination;
    const bool m_laterReplaces;
    const Report m_report;
    std::mutex m_mutex; // what follows
    std::vector<Link> m_links;
    std::vector<Folder> m_folders;
};
