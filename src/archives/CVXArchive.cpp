#include "archives/CVXArchive.h"

#include "archives/reading/CVPasswordValidator.h"
#include "util/LXDisplay.h"
#include "util/LXReleaseInBackground.h"
#include "util/path_parts.h"

#include <QLoggingCategory>
#include <QSet>

Q_LOGGING_CATEGORY(lcXArchive, "corvane.archives.xad")

namespace {

// From this many nested entries on, building the tree takes long enough to be worth reporting.
constexpr std::size_t reportTreeFrom = 5001;

// Made-up folders of a preview: a path of a few kilobytes has thousands of them, so a small archive could
// fill the memory. Ordinary archives of a million entries need a tenth of this.
constexpr qsizetype maxMadeUpBytes = qsizetype(256) << 20;

QStringList componentsOf(const QString &path)
{
    return canonicalPath(path).split(u'/', Qt::SkipEmptyParts);
}

bool isAboutPassword(XADErrorCode code)
{
    return code == XADErrorCode::PasswordMissing || code == XADErrorCode::PasswordWrongOpening ||
           code == XADErrorCode::Password || code == XADErrorCode::PasswordOrDamage;
}

} // namespace

/// The listing between its two passes.
struct CVXArchive::Listing
{
    struct Nested
    {
        QString name;
        std::shared_ptr<CVFileNode> node;
    };
    std::vector<Nested> entries; ///< all, in the archive's order
    // The first folder node of a path wins, as a search from the front would find it.
    QHash<QString, std::shared_ptr<CVFileNode>> directories;
    qsizetype madeUpBytes = 0;

    /// The folder with this path; where it has no entry of its own it is made up, with all above it.
    std::shared_ptr<CVFileNode> directory(QString path, const std::shared_ptr<CVFileNode> &root)
    {
        std::shared_ptr<CVFileNode> wanted, below;
        const auto place = [&](const std::shared_ptr<CVFileNode> &node) {
            if (below)
                node->appendChild(below);
            below = node;
            if (!wanted)
                wanted = node;
        };
        while (!path.isEmpty()) {
            if (const auto it = directories.constFind(path); it != directories.constEnd()) {
                place(*it);
                return wanted;
            }
            const auto made = CVFileNode::previewDirectoryNodeWithFilename(path);
            addDirectory(path, made);
            place(made);
            madeUpBytes += path.size() * qsizetype(sizeof(QChar)) + qsizetype(sizeof(CVFileNode));
            path = madeUpBytes < maxMadeUpBytes ? parentPath(path) : QString();
        }
        place(root);
        return wanted;
    }

    void addDirectory(const QString &path, const std::shared_ptr<CVFileNode> &node)
    {
        if (!directories.contains(path))
            directories.insert(path, node);
    }
};

bool CVXArchive::setupXADArchiveAtPath(const QString &path, bool recurse)
{
    XADErrorCode error = XADErrorCode::None;
    QString detail;
    m_xadarchive = recurse ? XADArchive::recursiveArchiveForFile(path, this, &error, &detail)
                           : XADArchive::openFile(path, this, &error, &detail);
    if (!m_xadarchive) {
        m_failureReason = detail;
        m_isUnknown = error == XADErrorCode::NotSupported;
        if (m_cancelled)
            setCancelledStatus();
        else if (isAboutPassword(error))
            setStatus(InvalidPassword);
        else if (error == XADErrorCode::NeedsPackage)
            setStatus(Unsupported);
        else
            setStatus(error == XADErrorCode::NotSupported && detail.isEmpty() ? Unsupported : InvalidFile);
        return false;
    }
    if (m_xadarchive->isEncrypted()) {
        m_filePreviews->setIsEncryptedArchive(true);
        askForPassword();
        if (m_cancelled) {
            setCancelledStatus();
            return false;
        }
        CVPasswordValidator validator;
        validator.cancelled = [this] { return m_cancelled.load(); };
        const bool valid = validator.isPasswordValidForArchive(password.value_or(QString()), path);
        if (!valid && !m_cancelled) {
            m_failureReason = validator.failureText();
            setStatus(InvalidPassword);
            return false;
        }
        m_xadarchive->setPassword(password);
    }
    if (m_cancelled) {
        setCancelledStatus();
        return false;
    }
    return true;
}

void CVXArchive::createCommand()
{
    setStatus(Unsupported);
    createComplete();
}

void CVXArchive::preview()
{
    Listing listing;
    try {
        if (setupXADArchiveAtPath(sourcePath, false)) {
            retrieveFileNamesAndSizes(listing);
            buildPreviewFileTree(listing);
        }
    } catch (const CVArchiveException &) {
        setStatus(InvalidFile);
    }
    if (m_cancelled)
        setCancelledStatus();
    // Listed archives are kept by the thousand, each with its tree; the open file has done its work.
    m_xadarchive.reset();
    // Its entries may have taken as much memory as the tree does.
    giveBackFreedMemory();
    previewComplete();
}

QString CVXArchive::sizeForArchive(int index) const
{
    return QString::number(std::max<qint64>(m_xadarchive->uncompressedSizeOfEntry(index), 0));
}

void CVXArchive::retrieveFileNamesAndSizes(Listing &listing)
{
    if (m_xadarchive->entryIsArchive(0) && m_xadarchive->numberOfEntries() == 1)
        if (auto inner = XADArchive::openEntry(*m_xadarchive, 0, this))
            m_xadarchive = std::move(inner);
    for (int index = 0; index < m_xadarchive->numberOfEntries() && !m_cancelled; ++index) {
        const QString name = m_xadarchive->nameOfEntry(index);
        if (name.isEmpty() && m_xadarchive->entryIsDirectory(index))
            continue; // the folder that all others lie in
        std::shared_ptr<CVFileNode> node;
        if (m_xadarchive->entryIsDirectory(index)) {
            node = CVFileNode::previewDirectoryNodeWithFilename(name);
            listing.addDirectory(name, node);
        } else {
            node = CVFileNode::previewRegularFileNodeWithFilename(name, sizeForArchive(index).toLongLong());
        }
        listing.entries.push_back({name, node});
    }
}

void CVXArchive::buildPreviewFileTree(Listing &listing)
{
    const std::size_t count = listing.entries.size();
    for (std::size_t i = 0; i < count && !m_cancelled; ++i) {
        const Listing::Nested &entry = listing.entries[i];
        listing.directory(parentPath(entry.name), m_filePreviews)->appendChild(entry.node);
        if (count >= reportTreeFrom)
            hasMadeProgress(static_cast<double>(i), static_cast<double>(count));
    }
    m_previewFiles.clear();
    for (const auto &child : m_filePreviews->children())
        m_previewFiles.push_back(child);
}

void CVXArchive::extractCommand()
{
    m_cancelled = false;
    m_skippedEntries.clear();
    m_failureReason.clear();
    m_systemError = 0;
    if (setupXADArchiveAtPath(extractFile, true)) {
        if (m_cancelled)
            setCancelledStatus();
        else if (!singleFilesToBeExtracted)
            takeResult(m_xadarchive->extractTo(extractDestination, true));
        else
            extractIndividualFiles();
    }
    if (m_cancelled)
        setCancelledStatus();
    extractDidFinish();
}

void CVXArchive::extractIndividualFiles()
{
    // The walk over all entries for each requested path, indexed: an entry is wanted when one of its
    // leading paths is requested. Everything is then extracted in one pass, so that a solid archive is
    // unpacked once and not once an entry.
    QSet<QString> requested;
    bool everything = false;
    for (const QString &path : *singleFilesToBeExtracted) {
        const QString clean = componentsOf(path).join(u'/');
        everything = everything || clean.isEmpty();
        requested.insert(clean);
        requested.insert(LXDisplay::fromEscaped(clean)); // as a listing shows it
    }
    std::vector<int> wanted;
    const int count = m_xadarchive->numberOfEntries();
    for (int index = 0; index < count; ++index) {
        bool take = everything;
        QString prefix;
        for (const QString &component : componentsOf(m_xadarchive->nameOfEntry(index))) {
            if (take)
                break;
            prefix += prefix.isEmpty() ? component : u'/' + component;
            take = requested.contains(prefix);
        }
        if (take)
            wanted.push_back(index);
    }
    takeResult(m_xadarchive->extractEntries(wanted, extractDestination));
}

bool CVXArchive::pathIsParentOrIsPathOfTarget(const QString &path, const QString &target)
{
    const auto wanted = QStringView(path).split(u'/', Qt::SkipEmptyParts);
    const auto parts = QStringView(target).split(u'/', Qt::SkipEmptyParts);
    return wanted.size() <= parts.size() && std::equal(wanted.cbegin(), wanted.cend(), parts.cbegin());
}

void CVXArchive::takeResult(XADErrorCode code)
{
    m_skippedEntries = m_xadarchive->skippedEntries();
    m_failureReason = m_xadarchive->lastErrorText();
    m_systemError = m_xadarchive->lastSystemError();
    if (m_cancelled || status() != Success)
        return;
    // An engine can fail as a whole (a cut-off file behind whole entries) without naming an entry.
    if (isAboutPassword(code))
        setStatus(InvalidPassword);
    else if (code == XADErrorCode::NotSupported || code == XADErrorCode::NeedsPackage)
        setStatus(Unsupported);
    else if (code != XADErrorCode::None)
        setStatus(InvalidFile);
}

void CVXArchive::cancelExtract()
{
    // The running extraction sees the flag within one block and then ends through extractDidFinish().
    m_cancelled = true;
    CVArchive::cancelExtract();
}

void CVXArchive::archiveNeedsPassword(XADArchive &archive)
{
    if (m_cancelled) {
        archive.setPassword(std::nullopt);
        return;
    }
    askForPassword();
    archive.setPassword(password);
}

void CVXArchive::archiveExtractionProgressBytes(XADArchive &, qint64 done, qint64 total)
{
    maxProgress = static_cast<double>(total);
    progressCounter = static_cast<double>(done);
    hasMadeProgress(progressCounter, maxProgress);
}

XADAction CVXArchive::archiveExtractionOfEntryDidFail(XADArchive &, int, XADErrorCode error)
{
    if (m_cancelled)
        return XADAction::Abort;
    switch (error) {
    case XADErrorCode::Damaged:
        setStatus(InvalidFile);
        return XADAction::Abort;
    case XADErrorCode::Password:
    case XADErrorCode::PasswordOrDamage:
        setStatus(InvalidPassword);
        return XADAction::Abort;
    case XADErrorCode::NotSupported:
    case XADErrorCode::NeedsPackage:
        setStatus(Unsupported);
        return XADAction::Abort;
    default:
        return XADAction::Skip;
    }
}

bool CVXArchive::archiveExtractionShouldStop(XADArchive &)
{
    return m_cancelled;
}

bool CVXArchive::archiveExtractionMayExceedLimit(XADArchive &, const QString &explanation)
{
    return !m_cancelled && delegate() && delegate()->archiveMayExceedLimit(this, explanation);
}
