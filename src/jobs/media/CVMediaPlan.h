#pragma once

#include <QByteArray>

#include <cstddef>
#include <stop_token>
#include <vector>

#include <sys/stat.h>

/// What there is to convert beneath a folder, in the order of the walk, and how the new files are called.
struct CVMediaPlan
{
    struct Folder
    {
        QByteArray path; ///< relative; empty for the folder itself
        struct stat facts;
    };
    struct Job
    {
        std::size_t folder; ///< of `folders`
        QByteArray source;
        QByteArray target; ///< free when its turn comes, or the source's own name
        bool isSound;
    };
    std::vector<Folder> folders; ///< only those with jobs
    std::vector<Job> jobs;
    qint64 paths = 0; ///< all beneath the folder

    /// Looks at everything beneath the open folder. Links are not followed,
    /// and folders that cannot be read are passed over. Cost: linear but for the sorting of a folder's
    /// names; a fixed number of descriptors at any depth.
    static CVMediaPlan make(int root, int imageType, int audioType, const std::stop_token &stop);

    static QByteArray pathOf(const QByteArray &folder, const QByteArray &name);
};
