#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <chrono>
#include <thread>

#include "CoreFactory.h"

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
    // 64 MiB of noise: mapped in one piece, far more than one read block.
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

}  // namespace

// Reading a mapping past the end of a file that shrank raises SIGBUS; the service must survive
// a user truncating a file while it is being hashed.
TEST_F(HashTest, FileTruncatedWhileHashedHasNoHashAndDoesNotEndTheProcess) {
    const QString path = _dir.filePath("shrinking");
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    ASSERT_TRUE(f.resize(qint64(512) << 20));  // sparse: quick to make, slow enough to hash
    f.close();
    int truncatedFirst = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        ASSERT_TRUE(QFile::resize(path, qint64(512) << 20));
        std::thread shrink([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            QFile::resize(path, 0);
        });
        const QString hash = Hash(path);
        shrink.join();
        if (hash.isEmpty()) ++truncatedFirst;
    }
    // Reaching this line is the point; at least one attempt must really have raced.
    EXPECT_GT(truncatedFirst, 0);
}
