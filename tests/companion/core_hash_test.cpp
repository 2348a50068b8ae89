#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <functional>

#include "CoreFactory.h"
#include "CryptographicHash.h"

namespace {

QString Sha256(const QByteArray& content) {
    return QString::fromLatin1(
        QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

class HashTest : public ::testing::Test {
protected:
    QString Write(const char* name, const QByteArray& content) {
        const QString path = _dir.filePath(QString::fromLatin1(name));
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        EXPECT_EQ(f.write(content), content.size());
        return path;
    }
    static QString Hash(const QString& path) {
        return sync::factory::CoreFactory().CreateCryptographicHash()->GetFileHash(path);
    }
    QTemporaryDir _dir;
};

TEST_F(HashTest, HashIsTheContentsSha256OrEmptyWhenTheFileCannotBeRead) {
    // 64 MiB of noise: many read blocks.
    QByteArray large(64 << 20, Qt::Uninitialized);
    QRandomGenerator(7).fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);
    const QString fifo = _dir.filePath("fifo");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const struct {
        const char* name;
        QString path;
        QString expected;
    } cases[] = {
        {"empty", Write("empty", {}),
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", Write("abc", "abc"),
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"large", Write("large", large), Sha256(large)},
        // No writer: the pipe reads as empty instead of blocking.
        {"pipe", fifo, Sha256({})},
        {"missing", _dir.filePath("missing"), QString()},
        {"directory", _dir.path(), QString()},
        {"no path", QString(), QString()},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Hash(c.path).toStdString(), c.expected.toStdString()) << c.name;
}

TEST_F(HashTest, FileWithoutReadPermissionHasNoHash) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every file whatever its permissions";
    const QString locked = Write("locked", "secret");
    ASSERT_TRUE(QFile::setPermissions(locked, QFileDevice::WriteOwner));
    EXPECT_EQ(Hash(locked), QString());
}

// The seam calls back after each block of 4 KiB; each row changes the file between two reads.
// Times are set explicitly: a row that changes the size keeps the time the file was written,
// so that only the size can tell, and a row that keeps the size moves the time by a known step.
TEST_F(HashTest, FileThatChangesWhileHashedHasNoHash) {
    static constexpr int BLOCK = 4096;
    QByteArray content(4 * BLOCK, Qt::Uninitialized);
    QRandomGenerator(11).fillRange(reinterpret_cast<quint32*>(content.data()), content.size() / 4);
    struct File {
        QByteArray path;
        struct timespec written;  // modification time before the hash began
        void Resize(off_t size) const { ASSERT_EQ(::truncate(path.constData(), size), 0); }
        void Rewrite() const {
            QFile f(QFile::decodeName(path));
            ASSERT_TRUE(f.open(QIODevice::ReadWrite));
            ASSERT_TRUE(f.seek(3 * BLOCK));
            ASSERT_EQ(f.write(QByteArray(BLOCK, 'z')), BLOCK);
        }
        // The time it was written plus some nanoseconds.
        void SetTime(long nanoseconds) const {
            struct timespec times[2] = {{0, UTIME_OMIT}, written};
            times[1].tv_sec += (times[1].tv_nsec + nanoseconds) / 1000000000;
            times[1].tv_nsec = (times[1].tv_nsec + nanoseconds) % 1000000000;
            ASSERT_EQ(::utimensat(AT_FDCWD, path.constData(), times, 0), 0);
        }
    };
    const struct {
        const char* name;
        std::function<void(const File& file, int block)> change;  // after each block read
    } cases[] = {
        {"grows by one byte",
         [](const File& f, int block) {
             if (block == 0) f.Resize(4 * BLOCK + 1), f.SetTime(0);
         }},
        {"shrinks below what was read",
         [](const File& f, int block) {
             if (block == 0) f.Resize(BLOCK / 2), f.SetTime(0);
         }},
        {"shrinks within what is still to read",
         [](const File& f, int block) {
             if (block == 0) f.Resize(3 * BLOCK), f.SetTime(0);
         }},
        // Size and time are back before the end: only the bytes counted can tell.
        {"grows and shrinks back, time restored",
         [](const File& f, int block) {
             if (block == 0) f.Resize(4 * BLOCK + 1);
             if (block == 4) f.Resize(4 * BLOCK);
             f.SetTime(0);
         }},
        {"rewritten in place, a second later",
         [](const File& f, int block) {
             if (block == 0) f.Rewrite(), f.SetTime(1000000000);
         }},
        {"rewritten in place, a nanosecond later",
         [](const File& f, int block) {
             if (block == 0) f.Rewrite(), f.SetTime(1);
         }},
    };
    for (const auto& c : cases) {
        File file{QFile::encodeName(Write("changing", content)), {}};
        struct stat st;
        ASSERT_EQ(::stat(file.path.constData(), &st), 0);
        file.written = st.st_mtim;
        int block = 0;
        const auto hash = [&](const std::function<void(const File&, int)>& change) {
            return sync::core::CryptographicHash::HashFile(QFile::decodeName(file.path), BLOCK,
                                                           [&] { change(file, block++); });
        };
        // The same file, left alone, hashes right through the same seam.
        EXPECT_EQ(hash([](const File&, int) {}).toStdString(), Sha256(content).toStdString());
        block = 0;
        EXPECT_EQ(hash(c.change).toStdString(), "") << c.name;
        EXPECT_GT(block, 0) << c.name;
    }
}

}  // namespace
