#pragma once

#include "util/LXFileDescriptor.h"
#include "util/LXResult.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

// XAR archives: a header, a compressed XML table of contents, and a heap with the files' data.
// Names and paths are bytes. Errors have the errno as code in the domain xar_system_domain, or an
// xar_error in xar_domain; their texts name the file or the entry. Nothing throws but for lack of memory.

inline constexpr const char *xar_system_domain = "NSPOSIXErrorDomain";
inline constexpr const char *xar_domain = "xar";

enum class xar_error : int {
    damaged = 1,
    not_supported,
    stopped, ///< by xar_cancel() or by the receiver of the data
};

enum class xar_mode { read, write };

enum class xar_digest : std::uint8_t { none, sha1, md5, sha256, sha512, unknown };

struct xar_checksum
{
    xar_digest algorithm = xar_digest::none;
    QByteArray value; ///< binary
};

/// One entry of an archive, owned by it. Nothing in it was made safe.
struct xar_file
{
    enum class Type : std::uint8_t { file, directory, symlink, hardlink, special };
    enum class Encoding : std::uint8_t { raw, zlib, bzip2, xz, unknown };

    const xar_file *parent = nullptr;
    const xar_file *original = nullptr; ///< of a hard link
    std::uint64_t id = 0;
    QByteArray name;
    QByteArray target; ///< of a symbolic link
    QByteArray user;
    QByteArray group;
    std::optional<std::int64_t> modified; ///< seconds since 1970 UTC
    std::uint64_t offset = 0;             ///< of its data in the heap
    std::uint64_t length = 0;             ///< bytes in the heap
    std::uint64_t size = 0;               ///< bytes of the file
    xar_checksum archived;                ///< of what is in the heap
    xar_checksum extracted;               ///< of the file
    std::uint32_t mode = 0;               ///< permission bits; meaningful when hasMode
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    Type type = Type::file;
    Encoding encoding = Encoding::raw;
    bool hasMode = false;
    bool hasData = false;
    bool isOriginal = false; ///< hard links lead here
};
using xar_file_t = const xar_file *;

/// An open archive. Destroying one that is being written abandons it: no file is left.
class xar_archive
{
public:
    ~xar_archive();
    xar_archive(const xar_archive &) = delete;
    xar_archive &operator=(const xar_archive &) = delete;

    struct Private;
    explicit xar_archive(std::unique_ptr<Private> p);
    const std::unique_ptr<Private> d;
};
using xar_t = std::unique_ptr<xar_archive>;

/// Reading checks the header and the table of contents. Writing replaces a file of that name (but never
/// writes through a link), needs about 100 MiB of memory however large the files are, and uses all cores.
LXResult<xar_t> xar_open(const QByteArray &path, xar_mode mode);
/// The two halves of it, of which a program may link one alone.
LXResult<xar_t> xar_create(const QByteArray &path);
LXResult<xar_t> xar_read(LXFileDescriptor file);

/// Adds the item at `path` below `parent` (null: at the top) as `name`, without what a folder holds.
/// A file's data is read later, at the latest by xar_close(), and not beyond the size it has now; the table
/// tells what was really read. Null after a failure, of this item or of one before: xar_close() has it.
/// One thread.
xar_file_t xar_add_frompath(xar_archive &archive, xar_file_t parent, const QByteArray &name,
                            const QByteArray &path);

/// Adds everything beneath the folder at `path`, sorted by name, links as links. `added` hears of each item;
/// false from it ends the walk well. False after a failure, as above.
bool xar_add_beneath(xar_archive &archive, xar_file_t parent, const QByteArray &path,
                     const std::function<bool()> &added);

/// Any thread: what is being written ends in the error `stopped`, within one block of 1 MiB.
void xar_cancel(xar_archive &archive);

/// Finishes an archive that is being written; nothing can be added then. An error leaves no file.
LXResult<void> xar_close(xar_archive &archive);

/// A place in the list of entries. Folders come before what they hold.
struct xar_iter
{
    std::size_t next = 0;
};
using xar_iter_t = std::unique_ptr<xar_iter>;

xar_iter_t xar_iter_new();
/// Null: there is none.
xar_file_t xar_file_first(const xar_archive &archive, xar_iter &iterator);
xar_file_t xar_file_next(const xar_archive &archive, xar_iter &iterator);

/// Takes at most 256 KiB a call; false stops.
using xar_receiver = std::function<bool(const char *data, std::size_t size)>;

/// The data of a file, checked against both checksums and the size: what came before an error is worthless.
/// Any threads at once.
LXResult<void> xar_extract(const xar_archive &archive, const xar_file &file, const xar_receiver &receiver);
