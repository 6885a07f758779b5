#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QJsonObject>
#include <QString>

#include <functional>

/// What lsar prints with -ja, taken apart as it arrives. Its text is not JSON as a whole when the archive
/// is encrypted or damaged (messages in between, no end), but each entry is an object on lines of its own;
/// so entries are parsed one by one, which also keeps memory bounded for long listings.
class CVLsarListing
{
public:
    /// `entry` is told each entry in order; its false stops the listing.
    explicit CVLsarListing(std::function<bool(const QJsonObject &)> entry)
        : m_entry(std::move(entry))
    {}

    /// Arbitrary pieces of the output. False when the receiver stopped or the text cannot be a listing.
    bool add(QByteArrayView text);

    bool needsPassword() const { return m_needsPassword; }
    /// The program's own error number, 0 for none; below zero when it printed none of the fields that
    /// end a listing.
    int error() const { return m_complete || m_error > 0 ? m_error : -1; }
    QString formatName() const { return m_formatName; }
    QString encoding() const { return m_encoding; }
    double confidence() const { return m_confidence; }
    /// Entries whose text could not be parsed.
    int brokenEntries() const { return m_broken; }

private:
    bool line(QByteArrayView text);

    std::function<bool(const QJsonObject &)> m_entry;
    QByteArray m_rest;
    QByteArray m_object;
    QString m_formatName;
    QString m_encoding;
    double m_confidence = 0;
    int m_error = 0;
    int m_broken = 0;
    bool m_inContents = false;
    bool m_inEntry = false;
    bool m_needsPassword = false;
    bool m_complete = false;
};
