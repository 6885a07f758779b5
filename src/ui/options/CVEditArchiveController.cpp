#include "ui/options/CVEditArchiveController.h"

#include "archives/CVArchive.h"
#include "engine/model/CVRarToolStatus.h"
#include "engine/model/CVSettings.h"
#include "ui/base/CVScreenNavigator.h"
#include "ui/base/CVTheme.h"
#include "ui/options/CVEditArchiveView.h"
#include "ui/options/CVFormatButton.h"
#include "ui/options/CVFormats.h"
#include "ui/options/CVVolumeRow.h"
#include "util/LXDisplay.h"
#include "util/LXFileName.h"
#include "util/LXMainThread.h"
#include "util/path_parts.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDropEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QSignalBlocker>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int widestBar = 640;
constexpr int longestName = 255; // bytes, what file systems take

QStringList localFiles(const QMimeData *data)
{
    QStringList paths;
    for (const QUrl &url : data->urls()) {
        if (url.isLocalFile())
            paths.append(url.toLocalFile());
    }
    return paths;
}

} // namespace

CVEditArchiveController::CVEditArchiveController(CVOptionServices services, CVScreenNavigator &navigator,
                                                 QObject *parent)
    : CVViewController(parent)
    , m_services(std::move(services))
    , m_navigator(navigator)
    , m_view(new CVEditArchiveView)
{
    setView(m_view);
}

CVEditArchiveController::~CVEditArchiveController()
{
    stopObserving();
    for (const int id : m_settingObservers)
        CVSettings::removeObserver(id);
    if (m_view)
        m_view->formatBar->setDelegate(nullptr);
}

CVEditArchiveView *CVEditArchiveController::editView() const
{
    return m_view;
}

void CVEditArchiveController::setUp()
{
    m_binding = makeBinding();
    m_binding->setDelegate(m_services.bindingDelegate);
    addAction(u"forward"_s, finishButtonTitle(), finishIcon(), Qt::Key_Return, [this] { finish(); });
    QAction *back = addAction(u"back"_s, tr("&Back"), u"tool/back"_s, QKeySequence(Qt::CTRL | Qt::Key_B),
                              [this] { m_navigator.goBack(); });
    back->setShortcuts(back->shortcuts() << QKeySequence(QKeySequence::Back));
    addAction(u"cancel"_s, tr("&Cancel"), u"tool/cancel"_s, Qt::Key_Escape,
              [this] { m_navigator.backToMain(); });
    m_view->rarText->setText(tr("Creating RAR archives requires up-to-date third-party software. Choose "
                                "Install to download and install the missing software."));
    m_view->formatBar->setDelegate(this);
    m_view->setAcceptDrops(static_cast<bool>(m_services.installRarFromFile));
    m_view->installEventFilter(this);
    for (QCheckBox *box :
         {m_view->zipBox, m_view->volumes->box(), m_view->encryptBox, m_view->showPasswordBox})
        box->installEventFilter(this); // they would move the focus with the arrow keys
    setupFormatButtons();
    connectControls();

    using namespace CVSettingsKey;
    const auto observe = [this](const QString &setting, void (CVEditArchiveController::*reaction)()) {
        m_settingObservers.push_back(CVSettings::observe(
            setting, [this, reaction, alive = std::weak_ptr<int>(m_alive)](const QString &) {
                LXMainThread::post([this, reaction, alive] {
                    if (!alive.expired() && m_view)
                        (this->*reaction)();
                });
            }));
    };
    observe(shouldOfferRAR, &CVEditArchiveController::setupFormatButtons);
    observe(shouldShowPassword, &CVEditArchiveController::refreshPasswords);
}

void CVEditArchiveController::connectControls()
{
    connect(m_view->nameField, &QLineEdit::textEdited, this,
            [this](const QString &text) { m_binding->setArchiveName(text); });
    connect(m_view->levelChooser, &QComboBox::activated, this,
            [this] { m_binding->setCompressionLevel(m_view->levelChooser->currentData().toInt()); });
    connect(m_view->imageChooser, &QComboBox::activated, this,
            [this] { m_binding->setImageFileFormat(m_view->imageChooser->currentData().toInt()); });
    connect(m_view->audioChooser, &QComboBox::activated, this,
            [this] { m_binding->setAudioFileFormat(m_view->audioChooser->currentData().toInt()); });
    connect(m_view->zipBox, &QCheckBox::toggled, this,
            [this](bool zip) { m_binding->setShouldUseZipCompression(zip); });
    connect(m_view->volumes, &CVVolumeRow::edited, this, &CVEditArchiveController::volumesEdited);
    connect(m_view->encryptBox, &QCheckBox::clicked, this, [this](bool encrypt) {
        CVSettings::setValue(CVSettingsKey::shouldEncrypt, encrypt);
        if (encrypt)
            m_view->passwordField->setFocus(Qt::OtherFocusReason);
    });
    connect(m_view->passwordField, &QLineEdit::textEdited, this,
            [this](const QString &text) { m_binding->setPassword(text); });
    connect(m_view->confirmationField, &QLineEdit::textEdited, this,
            [this](const QString &text) { m_binding->setPasswordConfirmation(text); });
    connect(m_view->showPasswordBox, &QCheckBox::toggled, this,
            [](bool show) { CVSettings::setValue(CVSettingsKey::shouldShowPassword, show); });
}

void CVEditArchiveController::observeBinding()
{
    stopObserving();
    const auto observe = [this](QLatin1StringView key, void (CVEditArchiveController::*reaction)()) {
        m_bindingObservers.push_back(
            m_binding->observe(key, [this, reaction](const QString &) { (this->*reaction)(); }));
    };
    observe("archiveType"_L1, &CVEditArchiveController::selectButtonOfBinding);
    observe("outputArchiveName"_L1, &CVEditArchiveController::refreshName);
    observe("compressionLevel"_L1, &CVEditArchiveController::refreshLevel);
    observe("imageFileFormat"_L1, &CVEditArchiveController::refreshMedia);
    observe("audioFileFormat"_L1, &CVEditArchiveController::refreshMedia);
    observe("shouldUseZipCompression"_L1, &CVEditArchiveController::refreshAll);
    observe("chunkSize"_L1, &CVEditArchiveController::refreshVolumes);
    observe("password"_L1, &CVEditArchiveController::refreshPasswords);
    observe("passwordConfirmation"_L1, &CVEditArchiveController::refreshPasswords);
    observe("shouldEncrypt"_L1, &CVEditArchiveController::refreshAll);
}

void CVEditArchiveController::stopObserving()
{
    for (const int id : m_bindingObservers)
        m_binding->removeObserver(id);
    m_bindingObservers.clear();
}

// The job reads the one that it was given, and writes to it, from its own thread.
void CVEditArchiveController::renewBinding()
{
    const auto old = std::exchange(m_binding, makeBinding());
    m_binding->setDelegate(m_services.bindingDelegate);
    m_binding->setSourcePath(old->sourcePath());
    m_binding->setArchiveName(old->archiveName());
    m_binding->setPassword(old->password());
    m_binding->setPasswordConfirmation(old->passwordConfirmation());
    m_binding->setShouldUseZipCompression(old->shouldUseZipCompression());
}

void CVEditArchiveController::takeInputs()
{
    const CVFileNode::Pointer root = m_services.inputFiles ? m_services.inputFiles() : nullptr;
    const CVFileNode::List files = root ? root->children() : CVFileNode::List();
    const CVFileNode::Pointer first = files.empty() ? nullptr : files.front();
    if (first && first == m_firstInput.lock() && files.size() == m_inputCount)
        return;
    m_firstInput = first;
    m_inputCount = files.size();
    // What was typed belonged to other files.
    m_binding->setSourcePath(first ? first->filename() : QString());
    m_binding->setArchiveName(root ? suggestedName(*root) : m_binding->smartArchiveName());
    m_binding->setPassword({});
    m_binding->setPasswordConfirmation({});
    m_binding->setShouldUseZipCompression(false);
    m_view->volumes->setBytes(0);
}

QStringList CVEditArchiveController::desiredToolbarItems() const
{
    return {u"forward"_s, u"back"_s, flexibleSpace, u"cancel"_s};
}

QSize CVEditArchiveController::size() const
{
    const QSize initial = CVTheme::initialSize();
    const int bar = m_view->formatBar->sizeHint().width() + 2 * CVTheme::margin;
    const int width = std::max(
        {initial.width(), std::min(bar, CVTheme::scaled(widestBar)), m_view->minimumSizeHint().width()});
    const int height = m_view->heightForContents(width);
    return {width, std::max(initial.height(), height)};
}

void CVEditArchiveController::willLoadView()
{
    stopObserving();
    if (m_binding.use_count() > 1)
        renewBinding();
    takeInputs();
    if (offersRar() != (m_view->formatBar->firstButtonWithIdentifier(CVFormats::rarTag) != nullptr))
        setupFormatButtons();
    if (!m_view->formatBar->firstButtonWithIdentifier(CVFormats::tagForFormat(m_binding->archiveType())))
        m_binding->setToZip(); // the last choice is not offered any more
    m_isLoaded = true;
    m_selectedButton = nullptr;
    hideNone(CVFormats::isAlwaysCompressed(m_binding->archiveType()));
    selectButtonOfBinding();
    volumesEdited();
    m_currentHeight = size().height();
    observeBinding();
}

void CVEditArchiveController::didLoadView()
{
    if (m_selectedButton)
        m_selectedButton->setFocus(Qt::OtherFocusReason);
}

void CVEditArchiveController::viewWillBeUnloaded()
{
    m_isLoaded = false;
    stopObserving();
}

// ---- the bar ----

bool CVEditArchiveController::offersRar() const
{
    return CVSettings::boolean(CVSettingsKey::shouldOfferRAR) &&
           (m_services.installRar || CVRarToolStatus::shared()->isRarInstalled());
}

void CVEditArchiveController::setupFormatButtons()
{
    const bool hadFocus = m_selectedButton && m_selectedButton->hasFocus();
    m_selectedButton = nullptr;
    m_view->formatBar->removeAllButtons();
    for (const int tag : CVFormats::barTags()) {
        if (tag == CVFormats::rarTag && !offersRar())
            continue;
        CVFormatButton *button = m_view->formatBar->addButtonWithIdentifier(tag, CVFormats::iconForTag(tag),
                                                                            CVFormats::nameForTag(tag));
        const QString file = u"x."_s + CVFormats::formatForTag(tag);
        button->setToolTip(CVArchive::archiveForCreating(file)->archiveDescription());
    }
    m_view->orderTabs();
    if (!m_isLoaded)
        return;
    selectButtonOfBinding();
    if (hadFocus && m_selectedButton)
        m_selectedButton->setFocus();
}

void CVEditArchiveController::selectButtonOfBinding()
{
    const int tag = CVFormats::tagForFormat(m_binding->archiveType());
    if (!m_selectedButton || m_selectedButton->identifier() != tag) {
        if (CVFormatButton *button = m_view->formatBar->firstButtonWithIdentifier(tag))
            select(button);
        else
            m_view->formatBar->deselectAllButtons();
    }
    refreshAll();
}

void CVEditArchiveController::select(CVFormatButton *button)
{
    m_previousFormat = m_selectedButton ? m_selectedButton->identifier() : -1;
    const bool focused = m_selectedButton && m_selectedButton->hasFocus();
    m_view->formatBar->deselectAllButtons();
    button->setSelected(true);
    m_selectedButton = button;
    m_view->formatBar->scrollToButton(button);
    if (focused)
        button->setFocus();
}

void CVEditArchiveController::changeArchiveType(CVFormatButton *button)
{
    if (button != m_selectedButton)
        select(button);
    chooseFormat(CVFormats::formatForTag(button->identifier()));
    refreshAll();
}

bool CVEditArchiveController::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::KeyPress: {
        const auto *key = static_cast<QKeyEvent *>(event);
        if ((key->key() != Qt::Key_Left && key->key() != Qt::Key_Right) ||
            (key->modifiers() & ~Qt::KeypadModifier) || !m_selectedButton)
            break;
        const bool next = (key->key() == Qt::Key_Right) == m_view->isLeftToRight();
        CVFormatButton *button = next ? m_view->formatBar->nextButtonForButton(m_selectedButton)
                                      : m_view->formatBar->previousButtonForButton(m_selectedButton);
        if (button != m_selectedButton)
            changeArchiveType(button);
        return true;
    }
    case QEvent::DragEnter:
    case QEvent::Drop:
        if (auto *drop = static_cast<QDropEvent *>(event); watched == m_view && drop->mimeData()->hasUrls()) {
            drop->acceptProposedAction();
            if (event->type() == QEvent::Drop)
                fileWellHasNewFiles(localFiles(drop->mimeData()));
            return true;
        }
        break;
    default:
        break;
    }
    return CVViewController::eventFilter(watched, event);
}

// The distribution of the tool, downloaded by the person.
void CVEditArchiveController::fileWellHasNewFiles(const QStringList &paths)
{
    if (m_services.activateApp)
        m_services.activateApp();
    const auto found = std::ranges::find_if(
        paths, [](const QString &path) { return lastComponent(path).startsWith("rarosx-"_L1); });
    if (found != paths.cend() && m_services.installRarFromFile)
        LXMainThread::post([install = m_services.installRarFromFile, path = *found] { install(path); });
}

// ---- what is shown ----

void CVEditArchiveController::refreshAll()
{
    m_view->description->setText(m_binding->archiveTypeDescription());
    refreshVisibility();
    refreshLevel();
    refreshMedia();
    // Only where the format has parts may the job hear of them.
    volumesEdited();
    refreshName();
    refreshPasswords();
    setNewHeight();
}

void CVEditArchiveController::refreshVisibility()
{
    const bool install = m_binding->shouldInstallRAR();
    const bool encrypt = m_binding->canEncrypt() && !install;
    const bool media = m_binding->canManipulateMultimedia();
    m_view->setNameShown(!install);
    m_view->setRarTextShown(install);
    m_view->setCompressionShown(m_binding->canSetCompressionLevel() && !install);
    m_view->setVolumesShown(canWriteVolumes());
    m_view->setMultimediaShown(media && offersImages(), media);
    m_view->setEncryptShown(encrypt);
    m_view->setPasswordsShown(encrypt && m_binding->shouldEncrypt());
    const QSignalBlocker blocker(m_view->encryptBox);
    m_view->encryptBox->setChecked(m_binding->shouldEncrypt());
}

void CVEditArchiveController::setNewHeight()
{
    const int height = size().height();
    if (std::exchange(m_currentHeight, height) != height && m_isLoaded)
        Q_EMIT sizeChanged();
}

QString CVEditArchiveController::outputName() const
{
    if (!m_binding->shouldUseZipCompressionForCorvaneFormat())
        return m_binding->outputArchiveName();
    return m_binding->archiveName() + u".zip"_s;
}

void CVEditArchiveController::refreshName()
{
    if (m_view->nameField->text() != m_binding->archiveName()) {
        m_view->nameField->setText(m_binding->archiveName());
        // A name that is longer than its field is known by how it begins.
        if (!m_view->nameField->hasFocus())
            m_view->nameField->setCursorPosition(0);
    }
    const QString output = outputName();
    m_view->nameSuffix->setText(output.mid(m_binding->archiveName().size()));
    const CVFileNode::Pointer root = m_services.inputFiles ? m_services.inputFiles() : nullptr;
    const QString source = root ? sourceDescription(*root) : QString();
    QString shown = LXDisplay::displayEscaped(output);
    if (m_binding->chunkSize() > 0)
        shown = tr("%1.001, .002, …").arg(shown);
    if (m_binding->shouldInstallRAR())
        m_view->setSummary({}, {});
    else
        m_view->setSummary(shown, source);
    refreshFinish();
}

void CVEditArchiveController::hideNone(bool hidden)
{
    m_view->setNoneOffered(!hidden);
    refreshLevel();
}

void CVEditArchiveController::refreshLevel()
{
    m_view->showLevel(m_binding->compressionLevel());
}

void CVEditArchiveController::refreshMedia()
{
    m_view->imageChooser->setCurrentIndex(m_view->imageChooser->findData(m_binding->imageFileFormat()));
    m_view->audioChooser->setCurrentIndex(m_view->audioChooser->findData(m_binding->audioFileFormat()));
    const QSignalBlocker blocker(m_view->zipBox);
    m_view->zipBox->setChecked(m_binding->shouldUseZipCompression());
}

bool CVEditArchiveController::canWriteVolumes() const
{
    return !m_binding->shouldInstallRAR() &&
           CVArchive::archiveForCreating(m_binding->fileName())->canWriteVolumes();
}

void CVEditArchiveController::volumesEdited()
{
    m_binding->setChunkSize(canWriteVolumes() ? m_view->volumes->bytes() : 0);
    refreshName();
}

void CVEditArchiveController::refreshVolumes()
{
    // What was chosen for another format comes back with the next one that has parts.
    if (canWriteVolumes())
        m_view->volumes->setBytes(m_binding->chunkSize());
    refreshName();
}

void CVEditArchiveController::refreshPasswords()
{
    if (m_view->passwordField->text() != m_binding->password())
        m_view->passwordField->setText(m_binding->password());
    if (m_view->confirmationField->text() != m_binding->passwordConfirmation())
        m_view->confirmationField->setText(m_binding->passwordConfirmation());
    const bool readable = CVSettings::boolean(CVSettingsKey::shouldShowPassword);
    m_view->setPasswordsReadable(readable);
    const QSignalBlocker blocker(m_view->showPasswordBox);
    m_view->showPasswordBox->setChecked(readable);
    refreshFinish();
}

QString CVEditArchiveController::nameProblem() const
{
    const QString &name = m_binding->archiveName();
    if (name.trimmed().isEmpty())
        return tr("Please enter a name");
    if (name.contains(u'/'))
        return tr("A name cannot contain “/”");
    const qsizetype volumeSuffix = m_binding->chunkSize() > 0 ? 4 : 0;
    if (bytesOfFileName(outputName()).size() + volumeSuffix > longestName)
        return tr("This name is too long");
    return {};
}

void CVEditArchiveController::refreshFinish()
{
    const bool install = m_binding->shouldInstallRAR();
    const QString problem = install ? QString() : nameProblem();
    const QString conflict = install ? QString() : nameConflict(outputName());
    const bool passwordsFit = m_binding->passwordsMatchOrShouldInstallRAR();
    action(u"forward"_s)->setText(install ? tr("&Install") : finishButtonTitle());
    action(u"forward"_s)->setEnabled(problem.isEmpty() && conflict.isEmpty() && passwordsFit);
    if (!problem.isEmpty() || passwordsFit) {
        m_view->setHint(problem.isEmpty() ? conflict : problem, !problem.isEmpty());
    } else {
        // Nobody has made a mistake by not being at the end yet.
        const bool underWay =
            m_binding->passwordConfirmation().isEmpty() ||
            (m_binding->isValidPassword() && m_binding->isNonZipArchiveOrZipWithValidPassword() &&
             m_binding->password().startsWith(m_binding->passwordConfirmation()));
        m_view->setHint(m_binding->passwordMessage(), !underWay);
    }
    setNewHeight();
}

void CVEditArchiveController::finish()
{
    if (m_binding->shouldInstallRAR()) {
        if (m_services.installRar)
            m_services.installRar();
        return;
    }
    stopObserving();
    if (m_services.start)
        m_services.start();
    if (m_binding.use_count() > 1)
        renewBinding();
    if (!m_isLoaded)
        return;
    volumesEdited();
    observeBinding();
}
