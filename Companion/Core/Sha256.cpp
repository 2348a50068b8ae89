#include "Sha256.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <QByteArray>

namespace sync {
namespace core {

namespace {
// OpenSSL sets itself up on first use, on whatever thread that is. Done on the cycle's thread,
// the error state of that thread, made while the set-up reads its configuration, is at times
// never freed when the thread ends. Set up here instead, when the library is loaded, on the
// thread that loads it. (Both hashes of this library go through OpenSSL, and so does libcurl.)
// Without its clean-up at exit: by default OpenSSL frees the state of every thread that used
// it when the process exits, and a thread that used it and is still ending at that moment
// frees its own once more, corrupting the heap. The first initialisation decides, so this
// one is made before anything else calls OpenSSL.
[[maybe_unused]] const bool kOpenSslReady =
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
}  // namespace

struct Sha256::Context {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    ~Context() { EVP_MD_CTX_free(ctx); }
};

Sha256::Sha256() : _context(new Context) {
    Reset();
}

void Sha256::Reset() {
    _failed = !_context->ctx || EVP_DigestInit_ex(_context->ctx, EVP_sha256(), nullptr) != 1;
}

Sha256::~Sha256() = default;

void Sha256::Add(const char* data, std::size_t size) {
    if (!_failed && size > 0) _failed = EVP_DigestUpdate(_context->ctx, data, size) != 1;
}

QString Sha256::HexResult() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (_failed || EVP_DigestFinal_ex(_context->ctx, digest, &length) != 1) return QString();
    _failed = true;  // finished: nothing more can be added
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length)).toHex());
}

}  // namespace core
}  // namespace sync
