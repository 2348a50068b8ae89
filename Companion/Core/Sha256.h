#pragma once

#include <QString>
#include <cstddef>
#include <memory>

namespace sync {
namespace core {

// SHA-256 fed piece by piece (OpenSSL), for code that hashes bytes while it copies them, so
// that a transfer reads its data once. The text form is CryptographicHash's: lower-case hex.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    // Starts over, as if nothing had been added (a transfer that is sent again).
    void Reset();
    void Add(const char* data, std::size_t size);
    // The hash of everything added; empty when OpenSSL failed. Ends the hashing.
    QString HexResult();

private:
    struct Context;
    std::unique_ptr<Context> _context;
    bool _failed = false;
};

}  // namespace core
}  // namespace sync
