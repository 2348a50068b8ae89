#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <memory>

#include "EntryInfoTree.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "ParallelScan.h"
#include "RetrieverTestDoubles.h"
#include "TreeRelease.h"

using namespace sync::test;
using sync::config::FileConfiguration;
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

// A copy that shares no text with the original, as a record read from another source is.
QString Fresh(const QString& s) {
    return s.isNull() ? QString() : QString(s.constData(), s.size());
}

FileConfiguration FreshFile(const FileConfiguration& f) {
    FileConfiguration copy(f);
    for (QString* text : {&copy.name, &copy.localPath, &copy.serverPath, &copy.checksum,
                          &copy.privilegeInfo, &copy.serverFileId, &copy.serverChecksum})
        *text = Fresh(*text);
    copy.contentType = Fresh(f.contentType);
    copy.properties = {};
    for (auto it = f.properties.cbegin(); it != f.properties.cend(); ++it)
        copy.properties.insert(Fresh(it.key()), Fresh(it.value()));
    return copy;
}

FileConfiguration SampleFile(const QString& serverPath, const QString& checksum) {
    FileConfiguration f;
    f.serverPath = serverPath;
    f.name = serverPath.section('/', -1);
    f.localPath = "/home/u" + serverPath;
    f.checksum = checksum;
    f.serverChecksum = QString("");  // empty, not null: must stay so
    f.serverFileId = "id-" + f.name;
    f.properties.insert("versionId", "v-" + checksum);
    return f;
}

// A record put under a TextSource takes the string of each text that the newest tree knowing
// its key holds equal, and nothing else: its values, null and empty ones included, stay its own.
TEST(EntryInfoTreeTest, TextSourceGivesARecordTheEqualTextsOfTheSameEntry) {
    const auto older = std::make_shared<EntryInfoTree>();
    const auto newer = std::make_shared<EntryInfoTree>();
    const auto put = [](EntryInfoTree& tree, const FileConfiguration& f) {
        tree.fileMap.insert(EntryInfoTree::KeyOf(f.serverPath), f);
    };
    put(*older, SampleFile("/Docs/A.txt", "a"));
    put(*older, SampleFile("/Docs/B.txt", "b-old"));
    put(*newer, SampleFile("/Docs/B.txt", "b"));
    put(*newer, SampleFile("/Docs/C.txt", "c"));

    const struct {
        const char* what;
        int sources;  // 0: no TextSource; 1: the older tree; 2: the older, then the newer
        FileConfiguration record;
        const EntryInfoTree* sharesWith;  // nullptr: shares nothing
        QStringList differs;              // the fields that must keep their own texts
    } rows[] = {
        {"no source", 0, SampleFile("/Docs/A.txt", "a"), nullptr, {}},
        {"equal entry", 1, SampleFile("/Docs/A.txt", "a"), older.get(), {}},
        {"one text differs",
         1,
         SampleFile("/Docs/A.txt", "z"),
         older.get(),
         {"checksum", "properties"}},
        {"path in another case",
         1,
         SampleFile("/DOCS/a.txt", "a"),
         older.get(),
         {"name", "localPath", "serverPath", "serverFileId"}},
        {"newest tree first", 2, SampleFile("/Docs/B.txt", "b"), newer.get(), {}},
        {"older tree when the newer lacks it", 2, SampleFile("/Docs/A.txt", "a"), older.get(), {}},
        {"unknown entry", 2, SampleFile("/Docs/D.txt", "d"), nullptr, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::unique_ptr<EntryInfoTree::TextSource> source;
        if (row.sources > 0) source = std::make_unique<EntryInfoTree::TextSource>(older);
        if (row.sources > 1) source->Add(newer);

        FileConfiguration record = FreshFile(row.record);
        QString key = Fresh(EntryInfoTree::KeyOf(record.serverPath));
        EntryInfoTree::ShareTexts(key, record);

        EXPECT_EQ(record, row.record);
        EXPECT_EQ(record.serverChecksum.isNull(), row.record.serverChecksum.isNull());
        EXPECT_EQ(key, EntryInfoTree::KeyOf(row.record.serverPath));
        const auto same =
            row.sharesWith ? row.sharesWith->fileMap.constFind(key) : older->fileMap.constEnd();
        EXPECT_EQ(row.sharesWith && key.isSharedWith(same.key()), row.sharesWith != nullptr);
        const std::pair<const char*, QString FileConfiguration::*> texts[] = {
            {"name", &FileConfiguration::name},
            {"localPath", &FileConfiguration::localPath},
            {"serverPath", &FileConfiguration::serverPath},
            {"checksum", &FileConfiguration::checksum},
            {"serverFileId", &FileConfiguration::serverFileId}};
        for (const auto& [name, field] : texts) {
            const bool shares = row.sharesWith && !row.differs.contains(name);
            EXPECT_EQ(row.sharesWith && (record.*field).isSharedWith((*same).*field), shares)
                << name;
        }
        EXPECT_EQ(row.sharesWith && record.properties.isSharedWith(same->properties),
                  row.sharesWith && !row.differs.contains("properties"));
    }

    // A tree its owner lets go of is freed, source or not, and shares nothing any more.
    {
        auto dropped = std::make_shared<EntryInfoTree>();
        put(*dropped, SampleFile("/Docs/A.txt", "a"));
        const std::weak_ptr<EntryInfoTree> watch = dropped;
        EntryInfoTree::TextSource source(dropped);
        dropped.reset();
        EXPECT_TRUE(watch.expired());
        FileConfiguration record = FreshFile(SampleFile("/Docs/A.txt", "a"));
        QString key = EntryInfoTree::KeyOf(record.serverPath);
        EntryInfoTree::ShareTexts(key, record);
        EXPECT_EQ(record, SampleFile("/Docs/A.txt", "a"));
    }

    // Folders the same way; and once the source has ended, nothing is shared any more.
    FolderConfiguration folder;
    folder.serverPath = folder.path = "/Docs/Sub";
    folder.localPath = "/home/u/Docs/Sub";
    older->folderMap.insert(EntryInfoTree::KeyOf(folder.serverPath), folder);
    for (const bool active : {true, false}) {
        SCOPED_TRACE(active ? "folder" : "folder after the source ended");
        std::unique_ptr<EntryInfoTree::TextSource> source;
        if (active) source = std::make_unique<EntryInfoTree::TextSource>(older);
        FolderConfiguration record(folder);
        record.serverPath = Fresh(folder.serverPath);
        record.path = Fresh(folder.path);
        record.localPath = Fresh(folder.localPath);
        QString key = EntryInfoTree::KeyOf(record.serverPath);
        EntryInfoTree::ShareTexts(key, record);
        EXPECT_EQ(record, folder);
        EXPECT_EQ(record.serverPath.isSharedWith(folder.serverPath), active);
        EXPECT_EQ(record.path.isSharedWith(folder.path), active);
        EXPECT_EQ(record.localPath.isSharedWith(folder.localPath), active);
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

// The trees of a pass are freed on another thread: what the caller still holds (a tree it
// shares, records copied out of a tree) must read the same afterwards.
TEST(EntryInfoTreeTest, ReleasedTreesLeaveWhatOthersHoldIntact) {
    const auto Fill = [](EntryInfoTree& tree, const QString& prefix) {
        for (int i = 0; i < 2000; ++i) {
            FileConfiguration f;
            f.serverPath = QStringLiteral("/%1/f%2.txt").arg(prefix).arg(i);
            f.localPath = QStringLiteral("/home%1").arg(f.serverPath);
            f.properties.insert(QStringLiteral("versionId"), QStringLiteral("v%1").arg(i));
            tree.fileMap.insert(EntryInfoTree::KeyOf(f.serverPath), f);
        }
    };
    auto alone = std::make_shared<EntryInfoTree>();
    auto shared = std::make_shared<EntryInfoTree>();
    Fill(*alone, QStringLiteral("a"));
    Fill(*shared, QStringLiteral("s"));
    const std::shared_ptr<EntryInfoTree> stillHeld = shared;
    QVector<FileConfiguration> copies;
    for (int i = 0; i < 2000; i += 97)
        copies.append(alone->fileMap.value(QStringLiteral("/a/f%1.txt").arg(i)));
    {
        sync::syncService::TreeRelease release;
        // Only the tree nobody else holds goes to the thread, and the caller's pointers are
        // emptied: a copy left with the caller would free the tree on the caller's thread.
        EXPECT_EQ(release.Release({&alone, &shared}), 1);
        EXPECT_EQ(alone, nullptr);
        EXPECT_EQ(shared, nullptr);
        EXPECT_EQ(stillHeld->fileMap.size(), 2000);
    }
    EXPECT_EQ(stillHeld->fileMap.value(QStringLiteral("/s/f7.txt")).localPath,
              QStringLiteral("/home/s/f7.txt"));
    for (int n = 0; n < copies.size(); ++n) {
        const int i = n * 97;
        EXPECT_EQ(copies[n].localPath, QStringLiteral("/home/a/f%1.txt").arg(i));
        EXPECT_EQ(copies[n].properties.value(QStringLiteral("versionId")),
                  QStringLiteral("v%1").arg(i));
    }
}

// A program that ends after its cycle leaves the last root's trees to the end of the process;
// a root that another root follows still has its trees freed.
TEST(EntryInfoTreeTest, OnlyTheLastRootsTreesAreLeftToTheEndOfTheProcess) {
    using sync::syncService::TreeRelease;
    const auto tree = [](const QString& path, QString& probe) {
        auto made = std::make_shared<EntryInfoTree>();
        FileConfiguration f;
        f.serverPath = path;
        f.localPath = QStringLiteral("/home") + path;
        probe = f.localPath;  // shares the record's text while the record lives
        made->fileMap.insert(EntryInfoTree::KeyOf(f.serverPath), std::move(f));
        return made;
    };
    QString first;
    QString last;
    TreeRelease::SetLastTrees(TreeRelease::LastTrees::LeftToProcessExit);
    {
        TreeRelease release;
        auto a = tree(QStringLiteral("/r1/a"), first);
        EXPECT_EQ(release.Release({&a}), 1);
        EXPECT_EQ(a, nullptr);
        EXPECT_FALSE(first.isDetached());
        release.FreeKept();  // the next root begins
        auto b = tree(QStringLiteral("/r2/b"), last);
        EXPECT_EQ(release.Release({&b}), 1);
    }
    TreeRelease::SetLastTrees(TreeRelease::LastTrees::Freed);
    EXPECT_TRUE(first.isDetached());
    EXPECT_FALSE(last.isDetached());

    QString freed;
    {
        TreeRelease release;
        auto c = tree(QStringLiteral("/r3/c"), freed);
        EXPECT_EQ(release.Release({&c}), 1);
    }
    EXPECT_TRUE(freed.isDetached());
}

// The passes over the trees find their few entries on two threads and then handle them one by
// one: the handling must see exactly the entries a plain walk would, in the same order, or
// change sets and database writes would differ from run to run.
TEST(EntryInfoTreeTest, ParallelScanFindsWhatAPlainWalkFindsInItsOrder) {
    for (const int size : {0, 5, 1023, 1024, 5000, 40001}) {
        QHash<QString, int> map;
        for (int i = 0; i < size; ++i) map.insert(QStringLiteral("/root/f%1").arg(i), i);
        for (const int every : {1, 3, 1000, size + 1}) {
            std::vector<QHash<QString, int>::const_iterator> expected;
            for (auto it = map.constBegin(); it != map.constEnd(); ++it)
                if (it.value() % every == 0) expected.push_back(it);
            const auto found = sync::syncService::ParallelScan(
                map,
                [&](QHash<QString, int>::const_iterator it) { return it.value() % every == 0; });
            ASSERT_EQ(found.size(), expected.size()) << size << " entries, every " << every;
            for (std::size_t i = 0; i < found.size(); ++i)
                ASSERT_TRUE(found[i] == expected[i])
                    << size << " entries, every " << every << ", at " << i;
        }
    }
}
