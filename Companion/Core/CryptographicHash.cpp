#include "CryptographicHash.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

namespace sync {
namespace core {

namespace {

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : _fd(fd) {}
    ~FileDescriptor() {
        if (_fd >= 0) ::close(_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return _fd; }

private:
    int _fd;
};

bool SameVersion(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
           before.st_mtim.tv_nsec == after.st_mtim.tv_nsec;
}

// A regular file is read at explicit offsets from its start, so that the descriptor's own
// offset stays where its owner left it; anything else is read as it comes.
QString HashDescriptor(int fd, std::size_t blockSize, const std::function<void()>& afterBlock) {
    if (fd < 0 || blockSize == 0) return QString();
    struct stat before;
    if (::fstat(fd, &before) != 0 || S_ISDIR(before.st_mode)) return QString();
    const bool regular = S_ISREG(before.st_mode);
    if (regular) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    DigestContext ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return QString();

    // One byte more than the size is enough to see the end of a small file, or that it grew;
    // a buffer that large is not worth asking for many small files.
    const std::size_t bufferSize =
        regular ? std::min<std::size_t>(blockSize, std::size_t(before.st_size) + 1) : blockSize;
    std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[bufferSize]);
    if (!buffer) return QString();

    qint64 total = 0;
    for (;;) {
        const ssize_t n = regular ? ::pread(fd, buffer.get(), bufferSize, off_t(total))
                                  : ::read(fd, buffer.get(), bufferSize);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return QString();
        }
        total += n;
        // It grew: whatever comes next, the bytes read are no version of the file.
        if (regular && total > before.st_size) return QString();
        if (EVP_DigestUpdate(ctx.get(), buffer.get(), std::size_t(n)) != 1) return QString();
        if (afterBlock) afterBlock();
    }

    if (regular) {
        struct stat after;
        if (total != before.st_size || ::fstat(fd, &after) != 0 || !SameVersion(before, after))
            return QString();
    }

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) return QString();
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length)).toHex());
}

QString Hash(const QString& filePath, std::size_t blockSize,
             const std::function<void()>& afterBlock) {
    if (filePath.isEmpty()) return QString();
    // Non-blocking open, so that a pipe without a writer cannot hang the cycle; reads of a
    // regular file are unaffected.
    const FileDescriptor fd(
        ::open(QFile::encodeName(filePath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return HashDescriptor(fd.get(), blockSize, afterBlock);
}

}  // namespace

QString CryptographicHash::HashOpenFile(int fd) {
    try {
        return HashDescriptor(fd, READ_BLOCK_SIZE, {});
    } catch (...) {
        return QString();
    }
}

QString CryptographicHash::HashFile(const QString& filePath, std::size_t blockSize,
                                    const std::function<void()>& afterBlock) {
    try {
        return Hash(filePath, blockSize, afterBlock);
    } catch (...) {
        // Only the test seam or running out of memory can throw; no hash, like a failed read.
        return QString();
    }
}

QString CryptographicHash::GetFileHash(const QString& filePath) {
    return HashFile(filePath, READ_BLOCK_SIZE);
}

}  // namespace core
}  // namespace sync
