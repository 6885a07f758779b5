#include "ui/window/CVDropBoxViewController.h"

#include "ui/window/CVDropBoxView.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>

using namespace Qt::StringLiterals;

CVDropBoxViewController::CVDropBoxViewController(QObject *parent)
    : CVViewController(parent)
    , m_dropBox(new CVDropBoxView)
{
    setView(m_dropBox);
    const auto open = [this] {
        if (m_openFile)
            m_openFile();
    };
    addAction(u"open"_s, tr("&Choose Files…"), u"tool/open"_s, {}, open)->setIconText(tr("Open"));
    addAction(u"paste"_s, tr("&Paste Files"), u"tool/paste"_s, QKeySequence::Paste, [this] {
        paste();
    })->setIconText(tr("Paste"));
    connect(m_dropBox, &CVDropBoxView::chooseFiles, this, open);
    connect(m_dropBox, &CVDropBoxView::filesDropped, this, [this](const QStringList &paths) {
        if (m_hasNewFiles)
            m_hasNewFiles(paths);
    });
}

QStringList CVDropBoxViewController::desiredToolbarItems() const
{
    return {u"open"_s, u"paste"_s, flexibleSpace};
}

void CVDropBoxViewController::willLoadView()
{
    m_dropBox->reset();
}

void CVDropBoxViewController::reset()
{
    m_dropBox->reset();
}

void CVDropBoxViewController::paste()
{
    const QMimeData *copied = QGuiApplication::clipboard()->mimeData();
    const QStringList paths = copied ? CVDropBoxView::localFiles(copied) : QStringList();
    if (!paths.isEmpty() && m_hasNewFiles)
        m_hasNewFiles(paths);
}
