// The WebDAV backend against a private Apache on loopback: a listing of 100,000 entries
// (entries/s, peak memory), 1,000 files of 4 KiB up and down (files/s), and one 1 GiB file up
// and down with the hash in the same pass (MB/s, peak memory). Both the server's folder and the
// local side live on /dev/shm when it has room, so that the client is what is measured.
//
// Targets: over 50,000 entries/s under 100 MiB; over 300 files/s each way; over 400 MB/s each
// way with memory flat.
#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <chrono>
#include <cstdio>

#include "ApacheServer.h"
#include "WebDavConnection.h"
#include "WebDavMultistatus.h"
#include "WebDavServer.h"

namespace {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using Clock = std::chrono::steady_clock;

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 1000;
constexpr int kSmallFiles = 1000;
constexpr int kSmallBytes = 4096;
constexpr qint64 kBigBytes = qint64(1) << 30;
constexpr double kEntriesPerSecond = 50000;
constexpr double kListingMiB = 100;
constexpr double kFilesPerSecond = 300;
constexpr double kMBPerSecond = 400;
constexpr double kFlatMiB = 64;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Peak resident memory since the last reset, in MiB.
double PeakMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024;
    return -1;
}

double CurrentMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024;
    return -1;
}

// CPU seconds this process has used, user and system.
double CpuSeconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The peak starts again from the current size (Linux: clear_refs 5).
void ResetPeak() {
    QFile refs(QStringLiteral("/proc/self/clear_refs"));
    if (refs.open(QIODevice::WriteOnly)) refs.write("5");
}

bool failed = false;

void Report(const char* what, double value, const char* unit, bool pass) {
    std::printf("%-44s %12.1f %-10s %s\n", what, value, unit, pass ? "PASS" : "FAIL");
    failed = failed || !pass;
}

bool WriteFile(const QString& path, const QByteArray& content) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size();
}

bool WriteBigFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    QByteArray block(1 << 20, Qt::Uninitialized);
    QRandomGenerator random(7);
    for (qint64 written = 0; written < kBigBytes; written += block.size()) {
        random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
        if (file.write(block) != block.size()) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QString why = sync::test::ApacheServer::Unavailable();
    if (!why.isEmpty()) {
        std::printf("skipped: %s\n", qPrintable(why));
        return 0;
    }
    const QStorageInfo shm(QStringLiteral("/dev/shm"));
    const QString parent = shm.isValid() && shm.bytesAvailable() > 4 * kBigBytes
                               ? QStringLiteral("/dev/shm")
                               : QDir::tempPath();
    sync::test::ApacheServer::Options options;
    options.parent = parent;
    sync::test::ApacheServer apache(options);
    QString error;
    if (!apache.Start(&error)) {
        std::printf("Apache did not start: %s\n", qPrintable(error));
        return 1;
    }
    QTemporaryDir local(parent + QStringLiteral("/webdav-bench-XXXXXX"));
    std::printf("server and local folders under %s\n", qPrintable(parent));

    // --- Listing ---
    const QString tree = apache.DocumentRoot() + QStringLiteral("/tree");
    for (int d = 0; d < kFolders; ++d) {
        const QString folder = tree + QStringLiteral("/folder %1").arg(d);
        QDir().mkpath(folder);
        for (int f = 0; f < kFilesPerFolder; ++f)
            WriteFile(folder + QStringLiteral("/file %1.txt").arg(f), "x");
    }
    apache.HandOver(tree);
    sync::config::ServerConfiguration account;
    account.baseUrl = apache.Url();
    auto server = std::make_shared<sync::remote::WebDavServer>(account, QString());
    FolderConfiguration root;
    root.serverPath = QStringLiteral("/tree");
    root.localPath = local.path() + QStringLiteral("/tree");
    {
        // For comparison: the server's answer alone, received and thrown away.
        sync::remote::WebDavConnection connection{QString(), QString(), QString()};
        sync::remote::WebDavConnection::Request request;
        request.method = "PROPFIND";
        request.url = sync::remote::WebDavServer::UrlOf(account.baseUrl, root.serverPath, true);
        request.headers = {"Depth: infinity"};
        request.body = sync::remote::PropfindBody(false);
        request.sink = [](const char*, std::size_t) { return true; };
        const auto start = Clock::now();
        const sync::remote::DavResponse r = connection.Perform(request);
        std::printf("  (the server's answer alone: %.2f s, %.1f MB)\n", Seconds(start),
                    double(r.bodyBytes) / 1e6);
    }
    ResetPeak();
    const double before = CurrentMiB();
    {
        auto folders = std::make_shared<QVector<FolderConfiguration>>();
        auto files = std::make_shared<QVector<FileConfiguration>>();
        const double cpu = CpuSeconds();
        const auto start = Clock::now();
        const int status = server->GetFolderTree(root, folders, files);
        const double seconds = Seconds(start);
        const double used = CpuSeconds() - cpu;
        const int entries = folders->size() + files->size();
        if (status != 0 || entries != kFolders * (kFilesPerFolder + 1)) {
            std::printf("listing failed: status %d, %d entries\n", status, entries);
            return 1;
        }
        Report("listing of 100,100 entries", entries / seconds, "entries/s",
               entries / seconds > kEntriesPerSecond);
        std::printf("  (client CPU %.2f s of %.2f s)\n", used, seconds);
        std::printf("  held by the result afterwards: %.1f MiB\n", CurrentMiB() - before);
        Report("  peak memory of the listing (with result)", PeakMiB() - before, "MiB",
               PeakMiB() - before < kListingMiB);
    }
    QDir(tree).removeRecursively();

    // --- Small files ---
    const QString up = local.path() + QStringLiteral("/up");
    QDir().mkpath(up);
    QDir().mkpath(apache.DocumentRoot() + QStringLiteral("/small"));
    apache.HandOver(apache.DocumentRoot() + QStringLiteral("/small"));
    QList<FileConfiguration> uploads;
    QByteArray content(kSmallBytes, 'a');
    for (int i = 0; i < kSmallFiles; ++i) {
        FileConfiguration f;
        f.name = QStringLiteral("small %1.bin").arg(i);
        f.localPath = up + QLatin1Char('/') + f.name;
        f.serverPath = QStringLiteral("/small/") + f.name;
        content[0] = char(i);
        content[1] = char(i >> 8);
        WriteFile(f.localPath, content);
        uploads << f;
    }
    root.serverPath = QStringLiteral("/small");
    root.localPath = up;
    {
        const double cpu = CpuSeconds();
        const auto start = Clock::now();
        const auto r = server->UploadFiles(account, root, uploads);
        const double seconds = Seconds(start);
        const double used = CpuSeconds() - cpu;
        if (r.FileServerCreations != kSmallFiles) {
            std::printf("uploads failed: %d done\n", r.FileServerCreations);
            return 1;
        }
        Report("upload of 1,000 files of 4 KiB", kSmallFiles / seconds, "files/s",
               kSmallFiles / seconds > kFilesPerSecond);
        std::printf("  (client CPU %.2f s of %.2f s)\n", used, seconds);
    }
    {
        const QString down = local.path() + QStringLiteral("/down");
        QDir().mkpath(down);
        root.localPath = down;
        auto files = std::make_shared<QVector<FileConfiguration>>();
        server->GetFolderTree(root, std::make_shared<QVector<FolderConfiguration>>(), files);
        QList<sync::thread::SynchronizedFileConfiguration> batch;
        for (const FileConfiguration& f : *files)
            batch << sync::thread::SynchronizedFileConfiguration(f, FileConfiguration());
        const double cpu = CpuSeconds();
        const auto start = Clock::now();
        const auto r = server->DownloadFiles(account, root, batch);
        const double seconds = Seconds(start);
        const double used = CpuSeconds() - cpu;
        if (r.FileLocalCreations != kSmallFiles) {
            std::printf("downloads failed: %d done\n", r.FileLocalCreations);
            return 1;
        }
        Report("download of 1,000 files of 4 KiB", kSmallFiles / seconds, "files/s",
               kSmallFiles / seconds > kFilesPerSecond);
        std::printf("  (client CPU %.2f s of %.2f s)\n", used, seconds);
    }
    QDir(apache.DocumentRoot() + QStringLiteral("/small")).removeRecursively();

    // --- One big file ---
    const QString bigFolder = local.path() + QStringLiteral("/big");
    QDir().mkpath(bigFolder);
    QDir().mkpath(apache.DocumentRoot() + QStringLiteral("/big"));
    apache.HandOver(apache.DocumentRoot() + QStringLiteral("/big"));
    FileConfiguration big;
    big.name = QStringLiteral("one.bin");
    big.localPath = bigFolder + QStringLiteral("/one.bin");
    big.serverPath = QStringLiteral("/big/one.bin");
    if (!WriteBigFile(big.localPath)) {
        std::printf("cannot write %s\n", qPrintable(big.localPath));
        return 1;
    }
    root.serverPath = QStringLiteral("/big");
    root.localPath = bigFolder;
    const double mb = double(kBigBytes) / 1e6;
    {
        QList<FileConfiguration> batch{big};
        ResetPeak();
        const double base = CurrentMiB();
        const double cpu = CpuSeconds();
        const auto start = Clock::now();
        const auto r = server->UploadFiles(account, root, batch);
        const double seconds = Seconds(start);
        const double used = CpuSeconds() - cpu;
        if (r.FileServerCreations != 1) {
            std::printf("the big upload failed\n");
            return 1;
        }
        Report("upload of 1 GiB, hashed in the same pass", mb / seconds, "MB/s",
               mb / seconds > kMBPerSecond);
        std::printf("  (client CPU %.2f s of %.2f s)\n", used, seconds);
        Report("  memory growth during it", PeakMiB() - base, "MiB", PeakMiB() - base < kFlatMiB);
        big = batch.first();
    }
    QFile::remove(big.localPath);
    {
        auto files = std::make_shared<QVector<FileConfiguration>>();
        server->GetFolderTree(root, std::make_shared<QVector<FolderConfiguration>>(), files);
        QList<sync::thread::SynchronizedFileConfiguration> batch{
            {files->value(0), FileConfiguration()}};
        ResetPeak();
        const double base = CurrentMiB();
        const double cpu = CpuSeconds();
        const auto start = Clock::now();
        const auto r = server->DownloadFiles(account, root, batch);
        const double seconds = Seconds(start);
        const double used = CpuSeconds() - cpu;
        if (r.FileLocalCreations != 1 || batch.first().databaseRecord.checksum != big.checksum) {
            std::printf("the big download failed or differs\n");
            return 1;
        }
        Report("download of 1 GiB, hashed in the same pass", mb / seconds, "MB/s",
               mb / seconds > kMBPerSecond);
        std::printf("  (client CPU %.2f s of %.2f s)\n", used, seconds);
        Report("  memory growth during it", PeakMiB() - base, "MiB", PeakMiB() - base < kFlatMiB);
    }
    QDir(apache.DocumentRoot() + QStringLiteral("/big")).removeRecursively();
    return failed ? 2 : 0;
}
