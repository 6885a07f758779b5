#include "ui/progress/CVPasswordViewController.h"

#include "engine/model/CVSettings.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVTheme.h"
#include "util/LXDisplay.h"
#include "util/LXMainThread.h"
#include "util/LXPendingAnswer.h"
#include "util/LXSecrets.h"

#include <QAction>
#include <QCheckBox>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>

using namespace Qt::StringLiterals;

namespace {

constexpr int pictureSize = 64;

} // namespace

/// One question of one job.
struct CVPasswordViewController::Prompt
{
    std::stop_token stop;
    LXPendingAnswer<std::optional<QString>> answer;
};

/// What workers hold of the screen: it may go away while they wait.
struct CVPasswordViewController::Link
{
    CVPasswordViewController *screen = nullptr; ///< main thread; null once it is gone

    std::mutex mutex; ///< guards what follows
    std::condition_variable_any changed;
    bool isTaken = false; ///< a job's question is being asked
};

CVPasswordViewController::CVPasswordViewController(CVScreenNavigator &navigator, QObject *parent)
    : CVViewController(parent)
    , m_navigator(navigator)
    , m_link(std::make_shared<Link>())
    , m_picture(new QLabel)
    , m_text(new QLabel)
    , m_capsLock(new QLabel(tr("Caps Lock is on")))
    , m_field(new QLineEdit)
    , m_show(new QCheckBox(tr("&Show password")))
{
    m_link->screen = this;
    m_text->setTextFormat(Qt::PlainText);
    m_text->setWordWrap(true);
    m_text->setAlignment(Qt::AlignLeading | Qt::AlignBottom);
    m_text->setBuddy(m_field);
    m_field->setAccessibleName(tr("Password"));
    m_field->setPlaceholderText(tr("Password"));
    m_field->installEventFilter(this);
    connect(m_field, &QLineEdit::textChanged, &LXSecrets::protectThisProcess);
    m_show->setChecked(CVSettings::boolean(CVSettingsKey::shouldShowPassword));
    connect(m_show, &QCheckBox::toggled, this, [this](bool shown) {
        CVSettings::setValue(CVSettingsKey::shouldShowPassword, shown);
        showPassword();
    });

    auto *view = new QWidget;
    auto *layout = new QGridLayout(view);
    layout->setContentsMargins(3 * CVTheme::unit, CVTheme::margin, 3 * CVTheme::unit, CVTheme::margin);
    layout->setHorizontalSpacing(CVTheme::margin);
    layout->setVerticalSpacing(CVTheme::spacing);
    layout->setRowStretch(0, 1);
    layout->addWidget(m_picture, 1, 0, 4, 1, Qt::AlignTop);
    layout->addWidget(m_text, 1, 1);
    layout->addWidget(m_field, 2, 1);
    layout->addWidget(m_show, 3, 1);
    layout->addWidget(m_capsLock, 4, 1);
    layout->setRowStretch(5, 1);
    layout->setColumnStretch(1, 1);
    setView(view);
    view->installEventFilter(this);
    applyStyle();
    showPassword();

    addAction(u"done"_s, tr("Done"), u"tool/done"_s, QKeySequence(Qt::Key_Return),
              [this] { confirmPasswordPrompt(); });
    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, QKeySequence(Qt::Key_Escape),
              [this] { cancelPasswordPrompt(); });
}

CVPasswordViewController::~CVPasswordViewController()
{
    m_link->screen = nullptr;
    if (m_prompt)
        m_prompt->answer.give(std::nullopt);
}

void CVPasswordViewController::applyStyle()
{
    const int side = CVTheme::scaled(pictureSize);
    m_picture->setPixmap(
        CVTheme::icon(u"tool/lock"_s).pixmap(QSize(side, side), m_picture->devicePixelRatioF()));
    m_text->setFont(CVTheme::titleFont());
    m_capsLock->setFont(CVTheme::smallFont());
    QPalette hint = m_capsLock->palette();
    hint.setColor(QPalette::WindowText, CVTheme::subtitleColor(view()->palette()));
    m_capsLock->setPalette(hint);
    // Keeps its place while it is not seen.
    QSizePolicy policy = m_capsLock->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    m_capsLock->setSizePolicy(policy);
    m_capsLock->hide();
}

QSize CVPasswordViewController::size() const
{
    QSize size = CVTheme::initialSize().expandedTo(view()->minimumSizeHint());
    size.setHeight(std::max(size.height(), view()->layout()->totalHeightForWidth(size.width())));
    return size;
}

QStringList CVPasswordViewController::desiredToolbarItems() const
{
    return {u"done"_s, u"cancel"_s, flexibleSpace};
}

void CVPasswordViewController::willLoadView()
{
    m_isCurrent = true;
}

void CVPasswordViewController::didLoadView()
{
    m_field->setFocus(Qt::OtherFocusReason);
    m_field->selectAll();
}

void CVPasswordViewController::viewWillBeUnloaded()
{
    m_isCurrent = false;
    m_capsLock->hide();
    // Another screen instead of this one would leave the job waiting for ever. Later, because loading this
    // screen anew takes it away first.
    LXMainThread::post([this, self = QPointer(this), asked = std::weak_ptr(m_prompt)] {
        if (self && !m_isCurrent && m_prompt && m_prompt == asked.lock())
            end(Cancelled);
    });
}

void CVPasswordViewController::setInformativeText(const QString &text)
{
    LXMainThread::wait([&] {
        const QString shown = LXDisplay::displayEscaped(text);
        if (shown == m_text->text())
            return;
        m_text->setText(shown);
        if (m_isCurrent)
            Q_EMIT sizeChanged();
    });
}

void CVPasswordViewController::setLastTryFailed(bool failed)
{
    LXMainThread::wait([&] { m_lastTryFailed = failed; });
}

std::optional<QString> CVPasswordViewController::promptForPassword(std::stop_token stop)
{
    // Nothing of `this` after the first wait: only the link is sure to be there.
    const std::shared_ptr<Link> link = m_link;
    {
        std::unique_lock lock(link->mutex);
        if (!link->changed.wait(lock, stop, [&] { return !link->isTaken; }))
            return std::nullopt;
        link->isTaken = true;
    }
    const auto prompt = std::make_shared<Prompt>();
    prompt->stop = stop;
    LXMainThread::post([link, prompt] {
        if (link->screen)
            link->screen->begin(prompt);
        else
            prompt->answer.give(std::nullopt);
    });
    const auto answer = prompt->answer.wait(stop);
    if (!answer)
        LXMainThread::post([link, prompt] {
            if (link->screen)
                link->screen->abandon(prompt);
        });
    {
        const std::lock_guard lock(link->mutex);
        link->isTaken = false;
    }
    link->changed.notify_one();
    return answer.value_or(std::nullopt);
}

void CVPasswordViewController::begin(const std::shared_ptr<Prompt> &prompt)
{
    if (prompt->stop.stop_requested())
        return;
    m_prompt = prompt;
    m_result = Waiting;
    // What was wrong is most often wrong in one letter.
    if (!m_lastTryFailed)
        m_field->clear();
    m_lastTryFailed = false;
    m_show->setChecked(CVSettings::boolean(CVSettingsKey::shouldShowPassword));
    showPassword();
    m_navigator.loadViewController(*this, false);
}

void CVPasswordViewController::abandon(const std::shared_ptr<Prompt> &prompt)
{
    if (m_prompt != prompt)
        return;
    m_prompt.reset();
    m_field->clear();
}

void CVPasswordViewController::end(Result result)
{
    // Only the first end counts, and what comes from it may lead back here.
    const std::shared_ptr<Prompt> prompt = std::exchange(m_prompt, nullptr);
    if (!prompt)
        return;
    const QString password = m_field->text();
    if (result == Cancelled)
        m_field->clear();
    if (prompt->stop.stop_requested())
        return;
    m_result = result;
    if (m_passwordDelegate)
        m_passwordDelegate->passwordPromptFinishedWasCancelled(result == Cancelled);
    prompt->answer.give(result == Done ? std::optional(password) : std::nullopt);
}

void CVPasswordViewController::showPassword()
{
    const bool shown = m_show->isChecked();
    m_field->setEchoMode(shown ? QLineEdit::Normal : QLineEdit::Password);
    m_field->setInputMethodHints(Qt::ImhSensitiveData | Qt::ImhNoPredictiveText | Qt::ImhNoAutoUppercase |
                                 (shown ? Qt::ImhNone : Qt::ImhHiddenText));
    m_field->setFocus(Qt::OtherFocusReason);
}

bool CVPasswordViewController::eventFilter(QObject *object, QEvent *event)
{
    if (object == view()) {
        if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
            applyStyle();
        return false;
    }
    if (event->type() == QEvent::KeyPress) {
        // Qt does not tell the state of the lock, but a letter does.
        const auto *key = static_cast<QKeyEvent *>(event);
        const QString typed = key->text();
        if (typed.size() == 1 && typed.at(0).isLetter() && typed.toUpper() != typed.toLower()) {
            const bool withShift = key->modifiers() & Qt::ShiftModifier;
            m_capsLock->setVisible(typed.at(0).isUpper() != withShift);
        } else if (key->key() == Qt::Key_CapsLock) {
            m_capsLock->hide();
        }
    }
    return false;
}
