#include "ui/outline/CVEntryMimeData.h"

#include "platform/LXFileUri.h"

#include <QEventLoop>
#include <QPointer>
#include <QProgressDialog>
#include <QUrl>

using namespace Qt::StringLiterals;

namespace {

constexpr int quietFor = 400;

} // namespace

CVEntryMimeData::CVEntryMimeData(std::shared_ptr<CVPrivateExtraction> extraction, QWidget *window)
    : m_extraction(std::move(extraction))
    , m_window(window)
{}

QStringList CVEntryMimeData::formats() const
{
    return {u"text/uri-list"_s};
}

bool CVEntryMimeData::hasFormat(const QString &mimeType) const
{
    return mimeType == "text/uri-list"_L1;
}

QVariant CVEntryMimeData::retrieveData(const QString &mimeType, QMetaType type) const
{
    if (!hasFormat(mimeType))
        return {};
    waitForFiles();
    const QStringList files = m_extraction->delivered();
    if (type.id() == QMetaType::QByteArray) {
        QByteArray list;
        for (const QString &file : files)
            list += LXFileUri::uriOfPath(file) + "\r\n";
        return list;
    }
    QVariantList urls;
    for (const QString &file : files)
        urls.append(QUrl::fromEncoded(LXFileUri::uriOfPath(file)));
    return urls;
}

void CVEntryMimeData::waitForFiles() const
{
    if (m_extraction->isFinished())
        return;
    // The other program waits for an answer to this very call, so there is no way but to wait here. The
    // window takes all input meanwhile.
    const std::shared_ptr<CVPrivateExtraction> extraction = m_extraction;
    QEventLoop loop;
    QProgressDialog progress(tr("Extracting what you dragged…"), tr("Cancel"), 0, 0, m_window);
    progress.setWindowModality(Qt::ApplicationModal);
    progress.setMinimumDuration(quietFor);
    progress.setValue(0);
    QObject::connect(&progress, &QProgressDialog::canceled, extraction.get(), &CVPrivateExtraction::cancel);
    QObject::connect(extraction.get(), &CVPrivateExtraction::finished, &loop, &QEventLoop::quit);
    loop.exec();
}
