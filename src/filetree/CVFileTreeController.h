#pragma once

#include "filetree/CVFileNode.h"

#include <memory>
#include <utility>
#include <vector>

class CVArchive;

/// What one window works on: the tree of the files dropped, and the archives whose contents are shown.
/// Thread: one at a time.
class CVFileTreeController
{
public:
    using Archives = std::vector<std::shared_ptr<CVArchive>>;

    CVFileTreeController()
        : m_inputFiles(CVFileNode::create())
    {}

    /// The root; never null, and the same for the life of the controller.
    const CVFileNode::Pointer &inputFiles() const { return m_inputFiles; }
    /// The visible top-level nodes.
    CVFileNode::List children() const { return m_inputFiles->children(); }
    void removeFileNode(const CVFileNode::Pointer &node) { m_inputFiles->removeNode(node); }
    void reset() { m_inputFiles->removeAllChildren(); }

    const Archives &previewedArchives() const { return m_previewedArchives; }
    void setPreviewedArchives(Archives archives) { m_previewedArchives = std::move(archives); }
    void resetPreviewedArchives() { m_previewedArchives.clear(); }

private:
    CVFileNode::Pointer m_inputFiles;
    Archives m_previewedArchives;
};
