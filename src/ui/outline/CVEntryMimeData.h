#pragma once

#include "ui/outline/CVPrivateExtraction.h"

#include <QMimeData>

class QWidget;

/// Entries of an archive on their way to another program: they are being extracted while they are dragged,
/// and whoever asks for the files waits until they are there. A small window tells of the wait and ends it.
/// Main thread.
class CVEntryMimeData final : public QMimeData
{
    Q_OBJECT

public:
    /// The window is borrowed for the wait.
    CVEntryMimeData(std::shared_ptr<CVPrivateExtraction> extraction, QWidget *window);

    QStringList formats() const override;
    bool hasFormat(const QString &mimeType) const override;

protected:
    QVariant retrieveData(const QString &mimeType, QMetaType type) const override;

private:
    void waitForFiles() const;

    std::shared_ptr<CVPrivateExtraction> m_extraction;
    QWidget *m_window;
};
