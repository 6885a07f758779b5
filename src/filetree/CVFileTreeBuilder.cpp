#include "filetree/CVFileTreeBuilder.h"

#include "util/LXLog.h"
#include "util/path_parts.h"

#include <QSet>

namespace {

Q_LOGGING_CATEGORY(lcBuilder, "corvane.filetree.builder", QtInfoMsg)

} // namespace

void CVFileTreeBuilder::addFiles(const QStringList &paths, CVFileNode &tree, const std::stop_token &stop)
{
    if (paths.isEmpty()) {
        LX_DEBUG(lcBuilder, "No files to add, will abort");
        return;
    }
    QSet<QString> loaded;
    for (const auto &child : tree.mutableChildrenArray())
        loaded.insert(child->filename());
    for (const QString &path : paths) {
        if (stop.stop_requested())
            return;
        if (loaded.contains(path)) {
            LX_DEBUG(lcBuilder, "File %s already loaded, skipping", qUtf8Printable(lastComponent(path)));
            continue;
        }
        loaded.insert(path);
        tree.appendChild(CVFileNode::buildFromFile(path, stop));
    }
}
