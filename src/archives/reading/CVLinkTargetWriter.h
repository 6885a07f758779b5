#pragma once

#include "archives/reading/CVSafeWriter.h"

#include <QCoreApplication>

/// Takes the data of a symbolic link, which is its target.
class CVSafeWriter::LinkTargetWriter final : public CVEntryWriter
{
public:
    /// PATH_MAX: no file system stores a longer link, so more data than this is not a link's target.
    static constexpr qsizetype maxTargetBytes = 4095;

    LinkTargetWriter(CVSafeWriter &owner, int index, QByteArray path)
        : m_owner(owner)
        , m_index(index)
        , m_path(std::move(path))
    {}

    Flow write(const char *data, qsizetype size) override
    {
        if (m_target.size() + size > maxTargetBytes) {
            m_tooLong = true;
            return Flow::SkipEntry;
        }
        m_target.append(data, size);
        return Flow::Go;
    }

    Flow writeHole(qint64) override
    {
        m_tooLong = true;
        return Flow::SkipEntry;
    }

    Flow finish(XADErrorCode code, const QString &detail) override
    {
        if (code != XADErrorCode::None)
            return m_owner.failEntry(m_index, code, detail);
        if (m_tooLong)
            return m_owner.failEntry(
                m_index, XADErrorCode::NotMade,
                QCoreApplication::translate("CVSafeWriter", "Its target is too long for a link."));
        m_owner.addLink(m_index, m_path, m_target, false);
        return m_owner.shouldStop() ? Flow::Stop : Flow::Go;
    }

private:
    CVSafeWriter &m_owner;
    int m_index;
    QByteArray m_path;
    QByteArray m_target;
    bool m_tooLong = false;
};
