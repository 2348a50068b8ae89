// Throughput of the file hash: our CryptographicHash (OpenSSL over a memory mapping) against
// QCryptographicHash fed from QFile in 1 MiB blocks, on one 1 GiB file in the temporary folder.
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <chrono>
#include <cstdio>
#include <functional>

#include "CryptographicHash.h"

namespace {

constexpr qint64 FILE_SIZE = qint64(1) << 30;
constexpr qint64 BLOCK = 1 << 20;

bool CreateFile(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    QByteArray block(BLOCK, Qt::Uninitialized);
    QRandomGenerator rng(42);
    for (qint64 written = 0; written < FILE_SIZE; written += BLOCK) {
        rng.fillRange(reinterpret_cast<quint32*>(block.data()), BLOCK / 4);
        if (f.write(block) != BLOCK) return false;
    }
    return f.flush();
}

QString QtHash(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    while (!f.atEnd()) hash.addData(f.read(BLOCK));
    return QString::fromLatin1(hash.result().toHex());
}

QString Measure(const char* name, const std::function<QString()>& run) {
    const auto start = std::chrono::steady_clock::now();
    const QString hash = run();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%-40s %8.1f MB/s  (%.2f s)\n", name, FILE_SIZE / 1e6 / seconds, seconds);
    return hash;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QString path = QDir::temp().filePath(
        QStringLiteral("hash_bench_%1.bin").arg(QCoreApplication::applicationPid()));
    std::printf("Creating %lld MiB test file %s\n", FILE_SIZE >> 20, qPrintable(path));
    if (!CreateFile(path)) {
        std::fprintf(stderr, "Cannot write %s\n", qPrintable(path));
        QFile::remove(path);
        return 1;
    }
    sync::core::CryptographicHash ours;
    // The file was just written, so both runs read it from the page cache.
    const QString a =
        Measure("CryptographicHash (OpenSSL, mapped)", [&] { return ours.GetFileHash(path); });
    const QString b = Measure("QCryptographicHash::Sha256 (QFile)", [&] { return QtHash(path); });
    const QString c = Measure("CryptographicHash again", [&] { return ours.GetFileHash(path); });
    QFile::remove(path);
    if (a.isEmpty() || a != b || a != c) {
        std::fprintf(stderr, "Hashes differ: %s %s %s\n", qPrintable(a), qPrintable(b),
                     qPrintable(c));
        return 1;
    }
    std::printf("SHA-256 %s\n", qPrintable(a));
    return 0;
}
