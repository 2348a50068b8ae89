#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "EntryInfoTree.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "RetrieverTestDoubles.h"

using namespace sync::test;
using sync::config::FolderConfiguration;
using sync::syncService::EntryInfoTree;
using sync::syncService::LocalEntryInfoTreeRetriever;

namespace {

// Keys are compared across trees built by different code: every path must get the key that
// QString::toLower gives it, ASCII or not.
TEST(EntryInfoTreeTest, KeyIsTheLowerCaseOfThePath) {
    const QString rows[] = {
        QString(),
        QString(""),
        "/docs/a.txt",
        "/Docs/A.TXT",
        "/docs/report Z",
        "Z",
        "/[x]/@Home/`q`/{Z}",
        QString::fromUtf8("/Café/ÉTÉ.txt"),
        QString::fromUtf8("/docs/ÅSA/B"),
        QString::fromUtf8("/Ünï/ΣΟΦΊΑ"),
        QString::fromUtf8("/İstanbul/I"),
        QString::fromUtf8("/a/\xF0\x9D\x90\x80"),  // outside the BMP
    };
    for (const QString& path : rows) {
        SCOPED_TRACE(path.toStdString());
        const QString key = EntryInfoTree::KeyOf(path);
        EXPECT_EQ(key, path.toLower());
        EXPECT_EQ(key.isNull(), path.toLower().isNull());
    }
}

// Records come out in order, each exactly once and whole, however often the rest is moved;
// a refused record ends the run, and the vector is given back empty either way.
TEST(EntryInfoTreeTest, DrainHandsOverEveryRecordInOrder) {
    const struct {
        int count;
        int refuseAt;  // -1: take everything
    } rows[] = {{0, -1}, {1, -1}, {1023, -1}, {1024, -1}, {5000, -1}, {5000, 0}, {5000, 3100}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.count << " records, refused at " << row.refuseAt);
        QVector<QString> records;
        for (int i = 0; i < row.count; ++i) records.append(QString("record %1").arg(i));
        QStringList taken;
        const bool all = EntryInfoTree::Drain(records, [&](QString&& record) {
            if (taken.size() == row.refuseAt) return false;
            taken.append(std::move(record));
            return true;
        });
        EXPECT_EQ(all, row.refuseAt < 0);
        EXPECT_TRUE(records.isEmpty());
        const int expected = row.refuseAt < 0 ? row.count : row.refuseAt;
        ASSERT_EQ(taken.size(), expected);
        for (int i = 0; i < expected; ++i) ASSERT_EQ(taken.at(i), QString("record %1").arg(i));
    }
}

// The engine's own folders are left out in any letter case, also in paths that are not ASCII
// and whose letter case only Unicode rules can fold.
TEST(EntryInfoTreeTest, WalkLeavesOutTheEngineFoldersWhateverThePath) {
    QTemporaryDir tmp;
    const QString rootPath = tmp.filePath("Docs");
    const QStringList files = {
        "kept.txt",
        ".{SyncTemp}/t.txt",
        ".{synctemp}/t2.txt",
        QString::fromUtf8("Ünï/.{SYNCTEMP}/u.txt"),
        QString::fromUtf8("Ünï/kept.txt"),
        QString::fromUtf8("Ärger.{syncbackup}/v.txt"),
        "a/.{SyncBackup}/x.txt",
        "a/{SyncTemp}/not-the-engine.txt",
    };
    for (const QString& below : files) {
        const QString path = rootPath + '/' + below;
        ASSERT_TRUE(QDir().mkpath(QFileInfo(path).absolutePath()));
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
    }
    FolderConfiguration root;
    root.id = root.rootId = 1;
    root.localPath = rootPath;
    root.serverPath = "/Docs";
    root.syncScope = 0;
    auto filter = std::make_shared<ListSyncFilter>();
    LocalEntryInfoTreeRetriever retriever(nullptr, std::make_shared<FakeConfigStore>(),
                                          std::make_shared<FakeCore>(), filter, filter);
    const auto tree = retriever.GetEntryInfoTree(root);
    QStringList keys = tree->fileMap.keys();
    keys.sort();
    EXPECT_EQ(keys.join(' '), QString::fromUtf8("/docs/a/{synctemp}/not-the-engine.txt "
                                                "/docs/kept.txt /docs/ünï/kept.txt"));
}

}  // namespace
