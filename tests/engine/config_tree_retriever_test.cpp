#include <gtest/gtest.h>

#include "ConfigEntryInfoTreeRetriever.h"
#include "FakeConfigStore.h"
#include "LogCapture.h"

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::database::TransactionalScope;
using sync::syncService::ConfigEntryInfoTreeRetriever;

namespace {

// The server paths of records, sorted and joined by spaces.
template <typename Records>
QString Paths(const Records& records) {
    QStringList paths;
    for (const auto& record : records) paths << record.serverPath;
    paths.sort();
    return paths.join(' ');
}

// The same for a tree, whose records must sit under their lower-case server path.
template <typename Map>
QString TreePaths(const Map& map) {
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        EXPECT_EQ(it.key(), it->serverPath.toLower());
    return Paths(map);
}

// Records of one root in the order they are stored, and which of them the repair must keep.
// Paths are server paths separated by spaces; the kept ones sorted, the root "/Docs" included.
TEST(ConfigTreeRetrieverTest, KeepsTheLastOfDuplicateRecordsAndRemovesTheOthers) {
    const QString removed = "Removing duplicate %1 from database: /home/u/Docs/%2";
    const struct {
        const char *name, *folders, *files, *keptFolders, *keptFiles;
        QStringList warnings;
    } rows[] = {
        {"NoDuplicates",
         "/Docs/Sub",
         "/Docs/a.txt /Docs/Sub/a.txt",
         "/Docs /Docs/Sub",
         "/Docs/Sub/a.txt /Docs/a.txt",
         {}},
        // Three records for one file, and between them a file without duplicate.
        {"Duplicates",
         "/Docs/Sub /Docs/SUB",
         "/Docs/a.txt /Docs/A.txt /Docs/b.txt /DOCS/A.TXT /Docs/Sub/x /Docs/SUB/X",
         "/Docs /Docs/SUB",
         "/DOCS/A.TXT /Docs/SUB/X /Docs/b.txt",
         {"3 duplicate file(s) found in sync database. Removing duplicate files.",
          removed.arg("file", "a.txt"), removed.arg("file", "A.txt"), removed.arg("file", "Sub/x"),
          "1 duplicate folder(s) found in sync database. Removing duplicate folders.",
          removed.arg("folder", "Sub")}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto store = std::make_shared<sync::test::FakeConfigStore>();
        TransactionalScope::SetBackend(store->TransactionBackend());
        FolderConfiguration root;
        root.serverPath = "/Docs";
        root.localPath = "/home/u/Docs";
        ASSERT_TRUE(store->AddFolder(root));
        for (const QString& serverPath : QString(row.folders).split(' ', Qt::SkipEmptyParts)) {
            FolderConfiguration f;
            f.rootId = f.parentId = root.id;
            f.serverPath = serverPath;
            f.localPath = "/home/u" + serverPath;
            ASSERT_TRUE(store->AddFolder(f));
        }
        for (const QString& serverPath : QString(row.files).split(' ', Qt::SkipEmptyParts)) {
            FileConfiguration f;
            f.rootId = f.folderId = root.id;
            f.serverPath = serverPath;
            f.localPath = "/home/u" + serverPath;
            store->AddFile(f);
        }

        sync::test::LogCapture log;
        auto tree = ConfigEntryInfoTreeRetriever(store, store).GetEntryInfoTree(root);

        EXPECT_EQ(row.keptFolders, TreePaths(tree->folderMap));
        EXPECT_EQ(row.keptFiles, TreePaths(tree->fileMap));
        EXPECT_EQ(row.warnings, log.Messages(log4cplus::WARN_LOG_LEVEL));
        // The database keeps exactly what the tree holds.
        EXPECT_EQ(row.keptFolders, Paths(store->GetFoldersByRootId(root.id)));
        EXPECT_EQ(row.keptFiles, Paths(store->GetFilesByRootId(root.id, false)));
        TransactionalScope::SetBackend(nullptr);
    }
}

}  // namespace
