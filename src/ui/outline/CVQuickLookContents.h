#pragma once

#include <QImage>
#include <QString>

#include <stop_token>

/// What can be shown of a file without opening it with anything: the beginning of a text, or a picture in a
/// size for the screen. Contents are a stranger's: sizes are limited before anything is decoded, only formats
/// of plain pixels are decoded, and nothing is run.
struct CVQuickLookContents
{
    enum class Kind { Nothing, Text, Picture };

    Kind kind = Kind::Nothing;
    QString text;           ///< to be shown as plain text; lines and length are limited
    bool isTextCut = false; ///< there is more of it in the file
    QImage picture;
    QSize pictureSize; ///< in the file
    QString problem;   ///< in words, for Nothing

    /// Reads and decodes: for a worker. A decoder cannot be interrupted, but what it may take is limited.
    static CVQuickLookContents load(const QString &path, const std::stop_token &stop);

    /// By the name and the declared size: whether it is worth extracting.
    static bool mayShow(const QString &name, qint64 size);
};
