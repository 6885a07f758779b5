#pragma once

#include "archives/reading/CVSafeWriter.h"

/// Writes one regular file. Discards it unless it was ended well.
class CVSafeWriter::FileWriter final : public CVEntryWriter
{
public:
    FileWriter(CVSafeWriter &owner, int index, QByteArray path);
    ~FileWriter() override;

    /// False: it could not be made, and that is recorded.
    bool create();

    // CVEntryWriter
    Flow write(const char *data, qsizetype size) override;
    Flow writeHole(qint64 size) override;
    Flow finish(XADErrorCode code, const QString &detail) override;

private:
    /// Go: the file is open and `size` more bytes belong to it.
    Flow admit(qint64 size);
    /// The answer after a failure that is recorded.
    Flow lost();
    Flow tooLong();
    Flow fail(int error);
    Flow discardWith(XADErrorCode code, const QString &reason);
    void discard();

    CVSafeWriter &m_owner;
    const int m_index;
    const QByteArray m_path;
    OpenFile m_file;
    qint64 m_declared = -1;
    qint64 m_received = 0;
    bool m_isHardLink = false;
    bool m_endsInHole = false;
    bool m_failed = false;
    bool m_ended = false;
};
