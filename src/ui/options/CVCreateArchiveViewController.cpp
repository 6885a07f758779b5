#include "ui/options/CVCreateArchiveViewController.h"

#include "archives/CVArchiveNameGenerator.h"
#include "util/LXDisplay.h"
#include "util/path_parts.h"

#include <QDir>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/// Everything lies there at some time; its name says nothing about what is packed.
bool isEverydayFolder(const QString &folder)
{
    using Location = QStandardPaths::StandardLocation;
    constexpr Location locations[] = {
        QStandardPaths::HomeLocation,      QStandardPaths::DesktopLocation, QStandardPaths::DownloadLocation,
        QStandardPaths::DocumentsLocation, QStandardPaths::TempLocation,
    };
    return folder.isEmpty() || std::ranges::any_of(locations, [&](Location location) {
               return QDir::cleanPath(QStandardPaths::writableLocation(location)) == folder;
           });
}

} // namespace

CVCreateArchiveViewController::CVCreateArchiveViewController(CVOptionServices services,
                                                             CVScreenNavigator &navigator, QObject *parent)
    : CVEditArchiveController(std::move(services), navigator, parent)
{
    setUp();
}

std::shared_ptr<CVEditArchiveOperationDataBinding> CVCreateArchiveViewController::makeBinding() const
{
    return std::make_shared<CVCreateOperationDataBinding>();
}

std::shared_ptr<CVCreateOperationDataBinding> CVCreateArchiveViewController::operationDataBinding()
{
    return std::static_pointer_cast<CVCreateOperationDataBinding>(binding());
}

QString CVCreateArchiveViewController::suggestedName(const CVFileNode &files) const
{
    const CVFileNode::List items = files.children();
    if (items.size() == 1) {
        // What follows the dot in the name of a folder is no extension.
        const CVFileNode &item = *items.front();
        return item.isDirectory() ? item.target() : binding()->smartArchiveName();
    }
    if (items.empty())
        return CVArchiveNameGenerator::fallbackName();
    const QString folder = parentPath(items.front()->filename());
    const bool together = std::ranges::all_of(
        items, [&](const CVFileNode::Pointer &item) { return parentPath(item->filename()) == folder; });
    return together && !isEverydayFolder(folder) ? lastComponent(folder)
                                                 : CVArchiveNameGenerator::fallbackName();
}

QString CVCreateArchiveViewController::sourceDescription(const CVFileNode &files) const
{
    const std::size_t count = files.numberOfChildren();
    if (count == 1)
        return tr("from “%1”").arg(LXDisplay::displayEscaped(files.children().front()->target()));
    return count == 0 ? QString() : tr("%1 items").arg(QLocale().toString(static_cast<qulonglong>(count)));
}
