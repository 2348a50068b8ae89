#include "CryptographicHash.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <boost/interprocess/file_mapping.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <memory>
#include <mutex>
#include <vector>

namespace sync {
namespace core {

namespace {

constexpr size_t READ_BLOCK_SIZE = 1 << 20;

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

// A file that another program truncates while we read it through the mapping raises SIGBUS,
// which would end the whole service. While a mapped read runs on a thread, a bus error jumps
// back to it and the file simply has no hash this time; any other bus error goes to whoever
// handled the signal before us.
thread_local sigjmp_buf* t_mappedReadJump = nullptr;
struct sigaction g_previousBusAction;

void OnBusError(int signal, siginfo_t* info, void* context) {
    if (t_mappedReadJump) siglongjmp(*t_mappedReadJump, 1);
    if (g_previousBusAction.sa_flags & SA_SIGINFO) {
        if (g_previousBusAction.sa_sigaction)
            g_previousBusAction.sa_sigaction(signal, info, context);
        return;
    }
    if (g_previousBusAction.sa_handler == SIG_IGN) return;
    if (g_previousBusAction.sa_handler == SIG_DFL) {
        ::signal(signal, SIG_DFL);
        ::raise(signal);
        return;
    }
    g_previousBusAction.sa_handler(signal);
}

void InstallBusErrorGuard() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_sigaction = OnBusError;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGBUS, &action, &g_previousBusAction);
    });
}

// Only C code runs between the jump point and the read, so jumping back skips no destructor.
bool DigestRegion(EVP_MD_CTX* ctx, const void* data, size_t size) {
    sigjmp_buf jump;
    if (sigsetjmp(jump, 1) != 0) {
        t_mappedReadJump = nullptr;
        return false;
    }
    t_mappedReadJump = &jump;
    const bool ok = EVP_DigestUpdate(ctx, data, size) == 1;
    t_mappedReadJump = nullptr;
    return ok;
}

// Maps the whole file; false when it cannot be mapped (the caller then reads it).
bool DigestMapped(EVP_MD_CTX* ctx, const QByteArray& nativePath, bool& digestFailed) {
    namespace bip = boost::interprocess;
    try {
        bip::file_mapping file(nativePath.constData(), bip::read_only);
        bip::mapped_region region(file, bip::read_only);
        region.advise(bip::mapped_region::advice_sequential);
        InstallBusErrorGuard();
        digestFailed = !DigestRegion(ctx, region.get_address(), region.get_size());
        return true;
    } catch (const bip::interprocess_exception&) {
        return false;
    }
}

bool DigestRead(EVP_MD_CTX* ctx, int fd) {
    std::vector<unsigned char> buffer(READ_BLOCK_SIZE);
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (EVP_DigestUpdate(ctx, buffer.data(), static_cast<size_t>(n)) != 1) return false;
    }
}

QString HashFile(const QString& filePath) {
    if (filePath.isEmpty()) return QString();
    const QByteArray nativePath = QFile::encodeName(filePath);

    // Non-blocking open, so that a pipe without a writer cannot hang the cycle; reads of a
    // regular file are unaffected.
    FileDescriptor fd(::open(nativePath.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) return QString();
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || S_ISDIR(st.st_mode)) return QString();

    DigestContext ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return QString();

    bool failed = false;
    const bool mapped =
        S_ISREG(st.st_mode) && st.st_size > 0 && DigestMapped(ctx.get(), nativePath, failed);
    if (!mapped) failed = !DigestRead(ctx.get(), fd.get());
    if (failed) return QString();

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) return QString();
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length)).toHex());
}

}  // namespace

QString CryptographicHash::GetFileHash(const QString& filePath) {
    try {
        return HashFile(filePath);
    } catch (const std::exception&) {
        // Out of memory for the read buffer: no hash, like any other unreadable file.
        return QString();
    }
}

}  // namespace core
}  // namespace sync
