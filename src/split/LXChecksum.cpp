#include "split/LXChecksum.h"

#include "split/block_copy.h"

#include <openssl/evp.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

constexpr std::size_t blockBytes = 1 << 20;

struct DigestFree
{
    void operator()(EVP_MD_CTX *context) const noexcept { EVP_MD_CTX_free(context); }
};

} // namespace

std::optional<QString> LXChecksum::checksumFileAtPath(const QString &path, const ShouldStop &shouldStop)
{
    const LXFileDescriptor file = openRegularFile(path);
    const std::unique_ptr<EVP_MD_CTX, DigestFree> digest(EVP_MD_CTX_new());
    if (!file.isOpen() || !digest || EVP_DigestInit_ex(digest.get(), EVP_sha1(), nullptr) != 1)
        return std::nullopt;
    std::vector<char> block(blockBytes);
    for (;;) {
        if (shouldStop && shouldStop())
            return std::nullopt;
        const ssize_t got = ::read(file.get(), block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        if (EVP_DigestUpdate(digest.get(), block.data(), static_cast<std::size_t>(got)) != 1)
            return std::nullopt;
    }
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (EVP_DigestFinal_ex(digest.get(), sum, &size) != 1)
        return std::nullopt;
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(sum), size).toHex());
}

bool LXChecksum::verifyFileAtPath(const QString &path, const QString &checksum, const ShouldStop &shouldStop)
{
    return checksumFileAtPath(path, shouldStop) == checksum;
}

QMap<QString, QString> LXChecksum::checksumsOfFiles(const QStringList &paths, const ShouldStop &shouldStop)
{
    QMap<QString, QString> sums;
    std::mutex mutex;
    std::atomic<qsizetype> next = 0;
    const auto work = [&] {
        for (qsizetype i = next++; i < paths.size(); i = next++) {
            if (const auto sum = checksumFileAtPath(paths[i], shouldStop)) {
                const std::lock_guard lock(mutex);
                sums.insert(paths[i], *sum);
            }
        }
    };
    {
        std::vector<std::jthread> others;
        const auto threads =
            std::min<qsizetype>(paths.size(), std::max(1U, std::thread::hardware_concurrency()));
        for (qsizetype i = 1; i < threads; ++i)
            others.emplace_back(work);
        work();
    }
    return sums;
}
