#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <string>

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

// Many blocks are read in the table below, through the seam.
TEST_F(HashTest, HashIsTheContentsSha256OrEmptyWhenTheFileCannotBeRead) {
    const QString fifo = _dir.filePath("fifo");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString locked = Write("locked", "secret");
    ASSERT_TRUE(QFile::setPermissions(locked, QFileDevice::WriteOwner));
    const struct {
        const char* name;
        QString path;
        QString expected;
        bool unprivilegedOnly;  // root reads every file whatever its permissions
    } cases[] = {
        {"empty", Write("empty", {}),
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", false},
        {"abc", Write("abc", "abc"),
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", false},
        // No writer: the pipe reads as empty instead of blocking.
        {"pipe", fifo, Sha256({}), false},
        {"missing", _dir.filePath("missing"), QString(), false},
        {"directory", _dir.path(), QString(), false},
        {"no read permission", locked, QString(), true},
    };
    for (const auto& c : cases) {
        if (c.unprivilegedOnly && ::geteuid() == 0) continue;
        EXPECT_EQ(Hash(c.path).toStdString(), c.expected.toStdString()) << c.name;
    }
}

// Through a descriptor its owner goes on reading: the whole file is hashed, and the owner's
// offset stays where it was.
TEST_F(HashTest, AnOpenFileIsHashedWholeWithoutMovingItsOffset) {
    QByteArray content(3 * 1024 * 1024 + 5, 'x');
    for (int i = 0; i < content.size(); i += 4093) content[i] = char('a' + i % 26);
    const int fd = ::open(QFile::encodeName(Write("big", content)).constData(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char first[3];
    ASSERT_EQ(::read(fd, first, sizeof first), 3);
    EXPECT_EQ(sync::core::CryptographicHash::HashOpenFile(fd), Sha256(content));
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 3);
    ::close(fd);
    EXPECT_EQ(sync::core::CryptographicHash::HashOpenFile(-1), QString());
}

// The seam calls back after each block of 4 KiB; each row changes the file between two reads.
// Times are set explicitly after every block: a row that changes the size keeps the time the
// file was written, so that only the size can tell; a row that keeps the size moves the time.
TEST_F(HashTest, FileThatChangesWhileHashedHasNoHash) {
    static constexpr int BLOCK = 4096;
    QByteArray content(4 * BLOCK, Qt::Uninitialized);
    QRandomGenerator(11).fillRange(reinterpret_cast<quint32*>(content.data()), content.size() / 4);
    const struct {
        const char* name;
        off_t sizeAfterFirst;  // -1: the size stays
        off_t sizeAfterLast;
        bool rewriteAfterFirst;  // the last block, in place
        long timeStepNs;
    } cases[] = {
        {"grows by one byte", 4 * BLOCK + 1, -1, false, 0},
        {"shrinks below what was read", BLOCK / 2, -1, false, 0},
        {"shrinks within what is still to read", 3 * BLOCK, -1, false, 0},
        // Size and time are back before the end: only the bytes counted can tell.
        {"grows and shrinks back, time restored", 4 * BLOCK + 1, 4 * BLOCK, false, 0},
        {"rewritten in place, a second later", -1, -1, true, 1000000000},
        {"rewritten in place, a nanosecond later", -1, -1, true, 1},
    };
    const std::string rewritten(BLOCK, 'z');  // GCC 12 misjudges the size of a Qt 5 QByteArray
    for (const auto& c : cases) {
        const QString path = Write("changing", content);
        const QByteArray native = QFile::encodeName(path);
        struct stat written;
        ASSERT_EQ(::stat(native.constData(), &written), 0);
        // The same file, left alone, hashes right through the same seam.
        EXPECT_EQ(sync::core::CryptographicHash::HashFile(path, BLOCK, [] {}).toStdString(),
                  Sha256(content).toStdString());
        int block = 0;
        const auto change = [&] {
            const off_t size = block == 0 ? c.sizeAfterFirst : block == 4 ? c.sizeAfterLast : -1;
            ASSERT_TRUE(size < 0 || ::truncate(native.constData(), size) == 0);
            if (block++ == 0 && c.rewriteAfterFirst) {
                const int fd = ::open(native.constData(), O_WRONLY);
                ASSERT_EQ(::pwrite(fd, rewritten.data(), BLOCK, 3 * BLOCK), BLOCK);
                ::close(fd);
            }
            struct timespec times[2] = {{0, UTIME_OMIT}, written.st_mtim};
            times[1].tv_sec += (times[1].tv_nsec + c.timeStepNs) / 1000000000;
            times[1].tv_nsec = (times[1].tv_nsec + c.timeStepNs) % 1000000000;
            ASSERT_EQ(::utimensat(AT_FDCWD, native.constData(), times, 0), 0);
        };
        EXPECT_EQ(sync::core::CryptographicHash::HashFile(path, BLOCK, change).toStdString(), "")
            << c.name;
        EXPECT_GT(block, 0) << c.name;
    }
}

}  // namespace
