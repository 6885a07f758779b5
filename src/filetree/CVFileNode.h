#pragma once

#include <QString>

#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

/// A node of a file tree, for a file on disk or for an entry of an archive.
///
/// A root has no parent; the roots of the trees used here have no file name either. Real children are
/// kept in the order of appending; what children(), count() and preorder() show is filtered by the two
/// flags below.
/// Ownership: always by std::shared_ptr; a parent owns its children, a child knows its parent weakly.
/// Thread: one at a time for a whole tree; hand a finished tree over, do not share one being built.
/// Cost: appendChild() is constant; nothing recurses, so a million entries and thousands of levels
/// are fine. Building a listing by path needs an index of the builder's own, do not search here.
class CVFileNode : public std::enable_shared_from_this<CVFileNode>
{
    struct Key
    {
        explicit Key() = default;
    };

public:
    using Pointer = std::shared_ptr<CVFileNode>;
    using List = std::vector<Pointer>;

    /// A root.
    static Pointer create();
    /// initWithFilename: the full path of a file on disk; nothing is read.
    static Pointer create(const QString &filename);
    /// initWithPreviewName: an entry of an archive. Size in bytes, nothing when not known.
    static Pointer create(const QString &previewName, bool isFolder, std::optional<qint64> size);
    static Pointer previewRegularFileNodeWithFilename(const QString &name, std::optional<qint64> size);
    static Pointer previewDirectoryNodeWithFilename(const QString &name);
    /// The path and, for a real folder, everything beneath it, in the order of the file system. Links
    /// are not followed; a folder that cannot be read stays empty and isIncomplete(). Names may be of any
    /// bytes, see fileNameFromBytes(). After a stop request what is missing is left out without a mark.
    static Pointer buildFromFile(const QString &path, const std::stop_token &stop = {});

    explicit CVFileNode(Key) {}
    ~CVFileNode();
    CVFileNode(const CVFileNode &) = delete;
    CVFileNode &operator=(const CVFileNode &) = delete;

    /// Full path of a file on disk, or the name of an entry. Null for a root.
    const QString &filename() const { return m_filename; }
    void setFilename(const QString &filename) { m_filename = filename; }

    bool isRoot() const { return m_parent.expired(); }
    /// True for a root, else when nothing is visible below.
    bool isLeaf() const;
    bool isPreview() const { return m_isPreview; }
    /// A folder on disk of which some or all could not be read when the tree was built.
    bool isIncomplete() const { return m_isIncomplete; }
    bool isPreviewableFolder() const { return m_isPreviewableFolder; }
    bool isEncryptedArchive() const { return m_isEncryptedArchive; }
    void setIsEncryptedArchive(bool encrypted) { m_isEncryptedArchive = encrypted; }
    std::optional<qint64> previewedFileSize() const;

    /// On disk now; for an entry of an archive isDirectory() is isPreviewableFolder(), the others false.
    bool isDirectory() const;
    bool isSymbolicLink() const;
    bool isPackage() const;

    /// Application bundles are shown as single files. Applies to this node and everything below it now.
    bool treatAppBundlesAsFiles() const { return m_treatAppBundlesAsFiles; }
    void setTreatAppBundlesAsFiles(bool asFiles);
    /// Files that only one desktop system uses are left out. Applies as above.
    bool ignoreMacHiddenFiles() const { return m_ignoreMacHiddenFiles; }
    void setIgnoreMacHiddenFiles(bool ignore);

    Pointer parent() const { return m_parent.lock(); }
    /// The visible children.
    List children() const;
    std::size_t numberOfChildren() const;
    /// The real children, whatever is visible.
    const List &mutableChildrenArray() const { return m_children; }
    /// This node and all visible ones below it.
    std::size_t count() const;
    List preorder() const;

    void appendChild(Pointer child);
    /// A direct child; nothing when it is not one.
    void removeChild(const Pointer &child);
    /// Removes the node wherever it is below this one.
    void removeNode(const Pointer &node);
    void removeAllChildren();

    /// Last component of the file name.
    QString target() const;
    /// "" for a root, else the targets from below the root to this node, joined by "/".
    QString path() const;
    /// target() for people: without its extension for an application bundle.
    QString formattedTarget() const;
    QString formattedFileSize() const;

    /// Name of an icon for the window; nothing here draws.
    const QString &icon() const { return m_icon; }
    void setIcon(const QString &icon) { m_icon = icon; }

    /// Puts what the node stands for at folder/path(): a folder is made (with those above it), a file or
    /// link is hard-linked or, where that fails, copied. An error is only logged: whoever has to know uses
    /// CVPackingTree.
    void copyToPath(const QString &folder) const;
    /// Moves it to folder/path(). Errors are ignored.
    void moveToPath(const QString &folder) const;

    QString description() const;

private:
    bool isVisible(const CVFileNode &child) const;
    bool hidesChildren() const;

    QString m_filename;
    QString m_icon;
    List m_children;
    std::weak_ptr<CVFileNode> m_parent;
    qint64 m_previewedFileSize = -1;
    bool m_isPreview : 1 = false;
    bool m_isPreviewableFolder : 1 = false;
    bool m_treatAppBundlesAsFiles : 1 = false;
    bool m_ignoreMacHiddenFiles : 1 = false;
    bool m_isEncryptedArchive : 1 = false;
    bool m_isIncomplete : 1 = false;
};

/// By the last component of the name: "._…", ".DS_Store", ".localized", ".hidden", ".Spotlight-V100".
bool isMacHiddenFile(const QString &name);
