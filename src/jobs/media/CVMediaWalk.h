#pragma once

#include <QString>

#include <chrono>
#include <functional>
#include <stop_token>

/// Makes the images and sound files of a folder smaller, in place, before it is packed.
///
/// Every regular file beneath the folder is looked at, depth first and in the order of names; those that
/// qualify are converted, several at once, with the outcome that one after another would have: the
/// first that fails, in that order, ends the walk. A new file never takes the place of another one:
/// where its name is taken, by a file that was there or by the new file of an earlier one, it gets the
/// next free one ("a 2.m4a"). Links are left alone.
///
/// The files are strangers', so they are decoded in confined child processes with bounds on memory and
/// time: a file that breaks a decoder fails like any other broken file.
/// Thread: a worker, one call.
struct CVMediaWalk
{
    QString folder;          ///< as of fileNameFromBytes()
    int imageFileFormat = 0; ///< of CVImageFileConverter; 0 leaves images as they are
    int audioFileFormat = 0; ///< of CVAudioFileConverter; 0 leaves sound as it is
    std::stop_token stop;
    /// Called on the calling thread, once for each path beneath the folder, folders included.
    std::function<void()> pathDone = [] {};
    /// How long one image, or ten seconds of sound, may take before the file counts as broken.
    std::chrono::milliseconds patience = std::chrono::minutes(5);

    struct Result
    {
        bool succeeded =
            true;           ///< also when it was stopped, after which some files are converted and some not
        QString failedFile; ///< relative to the folder
        QString reason;     ///< for people
    };
    Result run();
};
