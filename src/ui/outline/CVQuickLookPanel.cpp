#include "ui/outline/CVQuickLookPanel.h"

#include "filetree/CVFileNode.h"
#include "ui/base/CVTheme.h"
#include "ui/outline/CVFileKinds.h"
#include "util/LXBytesValueTransformer.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"

#include <QFontDatabase>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPointer>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <thread>

using namespace Qt::StringLiterals;

CVQuickLookPanel::CVQuickLookPanel(const CVArchivePreviewServices &services, QWidget *parent)
    : QDialog(parent)
    , m_services(services)
{
    setObjectName(u"quickLook"_s);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(CVTheme::margin, CVTheme::margin, CVTheme::margin, CVTheme::margin);
    column->setSpacing(CVTheme::spacing / 2);
    m_name = new QLabel(this);
    m_name->setTextFormat(Qt::PlainText);
    m_name->setFont(CVTheme::titleFont());
    m_name->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_facts = new QLabel(this);
    m_facts->setTextFormat(Qt::PlainText);
    m_facts->setFont(CVTheme::smallFont());
    m_facts->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_pages = new QStackedWidget(this);
    m_text = new QPlainTextEdit(m_pages);
    m_text->setReadOnly(true);
    m_text->setUndoRedoEnabled(false);
    m_text->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_text->setAccessibleName(tr("Beginning of the file"));
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    m_text->installEventFilter(this);
    m_picture = new QLabel(m_pages);
    m_picture->setAlignment(Qt::AlignCenter);
    m_picture->setMinimumSize(1, 1);
    m_picture->setAccessibleName(tr("Picture"));
    m_words = new QLabel(m_pages);
    m_words->setTextFormat(Qt::PlainText);
    m_words->setAlignment(Qt::AlignCenter);
    m_words->setWordWrap(true);
    m_words->setFont(CVTheme::titleFont());
    m_words->setForegroundRole(QPalette::PlaceholderText);
    for (QWidget *page : QList<QWidget *>{m_text, m_picture, m_words})
        m_pages->addWidget(page);
    column->addWidget(m_name);
    column->addWidget(m_facts);
    column->addSpacing(CVTheme::spacing / 2);
    column->addWidget(m_pages, 1);
    resize(CVTheme::scaled(560), CVTheme::scaled(420));
}

CVQuickLookPanel::~CVQuickLookPanel()
{
    drop();
}

void CVQuickLookPanel::drop()
{
    m_stop.request_stop();
    m_stop = std::stop_source();
    if (m_extraction)
        m_extraction->disconnect(this);
    m_extraction.reset();
    m_image = {};
    m_picture->clear();
    m_text->clear();
}

void CVQuickLookPanel::showEntry(const CVFileNode &node, const QString &entryPath, const QString &archivePath)
{
    drop();
    const bool isFolder = isFolderNode(node);
    const QString name = LXDisplay::displayEscaped(fileNodeName(node));
    const auto size = fileNodeSize(node);
    m_kind = CVFileKinds::kind(fileNodeName(node), isFolder);
    setWindowTitle(name);
    m_name->setText(name);
    m_facts->setText(size ? tr("%1, %2").arg(m_kind, LXBytesValueTransformer::formatBytes(*size)) : m_kind);
    if (isFolder) {
        const auto count = static_cast<qlonglong>(node.mutableChildrenArray().size());
        showWords(count == 0   ? tr("This folder is empty.")
                  : count == 1 ? tr("A folder with 1 item.")
                               : tr("A folder with %1 items.").arg(QLocale().toString(count)),
                  true);
        return;
    }
    if (!CVQuickLookContents::mayShow(fileNodeName(node).toString(), size.value_or(0))) {
        showWords(tr("There is no preview for this kind of file."), true);
        return;
    }
    showWords(tr("Extracting…"), false);
    m_extraction = CVPrivateExtraction::start(m_services, {entryPath}, archivePath, this);
    connect(m_extraction.get(), &CVPrivateExtraction::finished, this, [this] {
        if (!m_extraction->problem().isEmpty())
            showWords(m_extraction->problem(), true);
        else if (m_extraction->delivered().isEmpty())
            showWords(tr("This file could not be extracted."), true);
        else
            load(m_extraction->delivered().constFirst());
    });
}

void CVQuickLookPanel::load(const QString &path)
{
    // The thread may still be in a decoder when nobody wants its picture any more; it then ends on its own.
    std::thread([path, stop = m_stop.get_token(), panel = QPointer(this)] {
        auto contents = std::make_shared<CVQuickLookContents>(CVQuickLookContents::load(path, stop));
        LXMainThread::post([stop, panel, contents] {
            if (panel && !stop.stop_requested())
                panel->take(*contents);
        });
    }).detach();
}

void CVQuickLookPanel::take(const CVQuickLookContents &contents)
{
    using Kind = CVQuickLookContents::Kind;
    switch (contents.kind) {
    case Kind::Nothing:
        showWords(contents.problem, true);
        return;
    case Kind::Text:
        m_text->setPlainText(contents.text);
        m_pages->setCurrentWidget(m_text);
        if (contents.isTextCut)
            m_facts->setText(tr("%1 — the beginning").arg(m_facts->text()));
        break;
    case Kind::Picture:
        m_image = contents.picture;
        m_pages->setCurrentWidget(m_picture);
        m_facts->setText(tr("%1, %2 × %3")
                             .arg(m_facts->text())
                             .arg(contents.pictureSize.width())
                             .arg(contents.pictureSize.height()));
        fitPicture();
        break;
    }
    m_isSettled = true;
    Q_EMIT settled();
}

void CVQuickLookPanel::showWords(const QString &words, bool isFinal)
{
    m_words->setText(words);
    m_pages->setCurrentWidget(m_words);
    m_isSettled = isFinal;
    if (isFinal)
        Q_EMIT settled();
}

void CVQuickLookPanel::fitPicture()
{
    if (m_image.isNull())
        return;
    const double ratio = devicePixelRatioF();
    const QSize room = m_pages->size() * ratio;
    QImage fitted = m_image;
    if (m_image.width() > room.width() || m_image.height() > room.height())
        fitted = m_image.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    fitted.setDevicePixelRatio(ratio);
    m_picture->setPixmap(QPixmap::fromImage(fitted));
}

void CVQuickLookPanel::resizeEvent(QResizeEvent *event)
{
    QDialog::resizeEvent(event);
    fitPicture();
}

bool CVQuickLookPanel::takesKey(int key, Qt::KeyboardModifiers modifiers)
{
    if (modifiers & ~Qt::KeypadModifier)
        return false;
    switch (key) {
    case Qt::Key_Space:
    case Qt::Key_Escape:
    case Qt::Key_Return:
    case Qt::Key_Enter:
        close();
        return true;
    case Qt::Key_Up:
    case Qt::Key_Left:
        Q_EMIT moveRequested(-1);
        return true;
    case Qt::Key_Down:
    case Qt::Key_Right:
        Q_EMIT moveRequested(1);
        return true;
    default:
        return false;
    }
}

bool CVQuickLookPanel::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        if (takesKey(key->key(), key->modifiers()))
            return true;
    }
    return QDialog::eventFilter(watched, event);
}

void CVQuickLookPanel::keyPressEvent(QKeyEvent *event)
{
    if (!takesKey(event->key(), event->modifiers()))
        QDialog::keyPressEvent(event);
}

void CVQuickLookPanel::done(int result)
{
    drop();
    QDialog::done(result);
}
