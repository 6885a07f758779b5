#include "ui/window/CVFileAnalysisViewController.h"

#include "ui/base/CVTheme.h"
#include "ui/window/CVSpinner.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"

#include <QAction>
#include <QLabel>
#include <QPointer>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

/// Made and read on the main thread; only the pointer to it travels.
struct CVFileAnalysisViewController::Message
{
    QPointer<QLabel> label;
};

CVFileAnalysisViewController::CVFileAnalysisViewController(QObject *parent)
    : CVViewController(parent)
    , m_indicator(new CVSpinner)
    , m_text(new QLabel)
    , m_message(std::make_shared<Message>())
{
    auto *content = new QWidget;
    content->setObjectName(u"fileAnalysis"_s);
    content->setAccessibleName(tr("Looking at the files"));
    m_text->setTextFormat(Qt::PlainText);
    m_text->setAlignment(Qt::AlignCenter);
    m_text->setWordWrap(true);
    m_text->setObjectName(u"progressMessage"_s);
    m_indicator->setAccessibleName(tr("Working"));
    m_message->label = m_text;

    auto *layout = new QVBoxLayout(content);
    layout->setContentsMargins(CVTheme::margin, CVTheme::margin, CVTheme::margin, CVTheme::margin);
    layout->setSpacing(2 * CVTheme::unit);
    layout->addStretch();
    layout->addWidget(m_indicator, 0, Qt::AlignHCenter);
    layout->addWidget(m_text);
    layout->addStretch();
    setView(content);

    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape), [this] {
        if (m_cancelled)
            m_cancelled();
    });
}

QStringList CVFileAnalysisViewController::desiredToolbarItems() const
{
    return {u"cancel"_s, flexibleSpace};
}

void CVFileAnalysisViewController::startAnimating()
{
    m_indicator->startAnimating();
}

void CVFileAnalysisViewController::stopAnimating()
{
    m_indicator->stopAnimating();
}

void CVFileAnalysisViewController::setProgressMessage(const QString &text)
{
    LXMainThread::post([message = m_message, text] {
        if (message->label)
            message->label->setText(LXDisplay::displayEscaped(text));
    });
}
