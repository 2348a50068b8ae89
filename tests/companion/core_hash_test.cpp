#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include "CoreFactory.h"

namespace {

QString Expected(const QByteArray& content) {
    return QString::fromLatin1(
        QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

class HashTest : public ::testing::Test {
protected:
    QString Write(const QString& name, const QByteArray& content) {
        const QString path = _dir.filePath(name);
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        EXPECT_EQ(f.write(content), content.size());
        return path;
    }
    QString Hash(const QString& path) {
        return sync::factory::CoreFactory().CreateCryptographicHash()->GetFileHash(path);
    }
    QTemporaryDir _dir;
};

TEST_F(HashTest, ContentHashesMatchSha256) {
    // 64 MiB of noise: mapped in one piece, far more than one read block.
    QByteArray large(64 << 20, Qt::Uninitialized);
    QRandomGenerator(7).fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);
    const struct {
        const char* name;
        QByteArray content;
    } cases[] = {
        {"empty", QByteArray()},
        {"abc", QByteArray("abc")},
        {"large", large},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Hash(Write(c.name, c.content)), Expected(c.content)) << c.name;
    EXPECT_EQ(Hash(_dir.filePath("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(HashTest, PipeIsReadNotMapped) {
    const QString fifo = _dir.filePath("fifo");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    // No writer: the pipe reads as empty instead of blocking.
    EXPECT_EQ(Hash(fifo), Expected(QByteArray()));
}

TEST_F(HashTest, WhatCannotBeReadHasNoHash) {
    EXPECT_EQ(Hash(_dir.filePath("missing")), QString());
    EXPECT_EQ(Hash(_dir.path()), QString());
    EXPECT_EQ(Hash(QString()), QString());
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every file whatever its permissions";
    const QString locked = Write("locked", "secret");
    ASSERT_TRUE(QFile::setPermissions(locked, QFileDevice::WriteOwner));
    EXPECT_EQ(Hash(locked), QString());
}

}  // namespace
