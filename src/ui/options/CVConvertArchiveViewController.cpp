#include "ui/options/CVConvertArchiveViewController.h"

#include "archives/archive_string.h"
#include "engine/model/CVSettings.h"
#include "util/LXDisplay.h"
#include "util/path_parts.h"

CVConvertArchiveViewController::CVConvertArchiveViewController(CVOptionServices services,
                                                               CVScreenNavigator &navigator, QObject *parent)
    : CVEditArchiveController(std::move(services), navigator, parent)
{
    setUp();
}

std::shared_ptr<CVEditArchiveOperationDataBinding> CVConvertArchiveViewController::makeBinding() const
{
    return std::make_shared<CVConvertOperationDataBinding>();
}

std::shared_ptr<CVConvertOperationDataBinding> CVConvertArchiveViewController::operationDataBinding()
{
    return std::static_pointer_cast<CVConvertOperationDataBinding>(binding());
}

QString CVConvertArchiveViewController::suggestedName(const CVFileNode &) const
{
    const QString name = lastComponent(binding()->sourcePath());
    // "x.part1.rar" and "x.7z.001" are pieces of x.
    return isMultipartArchive(name) ? stringByDeletingArchivePathExtension(name)
                                    : binding()->smartArchiveName();
}

QString CVConvertArchiveViewController::nameConflict(const QString &name) const
{
    const QString &source = binding()->sourcePath();
    const bool sameFolder = CVSettings::integer(CVSettingsKey::extractDestination) ==
                            static_cast<int>(CVExtractDestination::ArchiveFolder);
    return sameFolder && binding()->chunkSize() == 0 && lastComponent(source) == name
               ? tr("This is the archive itself: choose another name or format")
               : QString();
}

QString CVConvertArchiveViewController::sourceDescription(const CVFileNode &files) const
{
    const CVFileNode::List items = files.children();
    return items.empty() ? QString()
                         : tr("from “%1”").arg(LXDisplay::displayEscaped(items.front()->target()));
}
