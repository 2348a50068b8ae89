#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "ConfigDatabase.h"
#include "ConfigEntryInfoTreeRetriever.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "LogCapture.h"

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::database::ConfigDatabase;
using sync::syncService::ConfigEntryInfoTreeRetriever;

namespace {

// Records of one root in the order they are stored, and which of them the repair must keep.
// Paths are server paths separated by spaces; the kept ones sorted, the root "/Docs" included.
struct DuplicateRow {
    const char *name, *folders, *files, *keptFolders, *keptFiles;
    QStringList warnings;
};

void PrintTo(const DuplicateRow& row, std::ostream* os) {
    *os << row.name;
}

const DuplicateRow kRows[] = {
    {"NoDuplicates",
     "/Docs/Sub",
     "/Docs/a.txt /Docs/Sub/a.txt",
     "/Docs /Docs/Sub",
     "/Docs/Sub/a.txt /Docs/a.txt",
     {}},
    {"FilesDifferingInCase",
     "",
     "/Docs/A.txt /Docs/b.txt /docs/a.TXT",
     "/Docs",
     "/Docs/b.txt /docs/a.TXT",
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/A.txt"}},
    {"ThreeRecordsForOnePath",
     "",
     "/Docs/a.txt /Docs/A.txt /DOCS/A.TXT",
     "/Docs",
     "/DOCS/A.TXT",
     {"2 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/a.txt",
      "Removing duplicate file from database: /home/u/Docs/A.txt"}},
    {"FoldersAndFiles",
     "/Docs/Sub /Docs/SUB",
     "/Docs/Sub/x /Docs/SUB/X",
     "/Docs /Docs/SUB",
     "/Docs/SUB/X",
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/Sub/x",
      "1 duplicate folder(s) found in sync database. Removing duplicate folders.",
      "Removing duplicate folder from database: /home/u/Docs/Sub"}},
    {"EmptyRoot", "", "", "/Docs", "", {}},
};

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

class ConfigDuplicateTest : public ::testing::TestWithParam<DuplicateRow> {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        Open();
        root.serverPath = "/Docs";
        root.localPath = "/home/u/Docs";
        ASSERT_TRUE(folders->AddFolder(root));
    }
    void TearDown() override { Close(); }

    void Open() {
        db = ConfigDatabase::Open(tmp.filePath("sync.db"));
        ConfigDatabase::Install(db);
        folders = std::make_shared<sync::database::FolderConfigManager>(db);
        files = std::make_shared<sync::database::FileConfigManager>(db);
    }
    void Close() {
        ConfigDatabase::Uninstall();
        files.reset();
        folders.reset();
        db.reset();
    }

    QTemporaryDir tmp;
    std::shared_ptr<ConfigDatabase> db;
    std::shared_ptr<sync::database::FolderConfigManager> folders;
    std::shared_ptr<sync::database::FileConfigManager> files;
    FolderConfiguration root;
};

TEST_P(ConfigDuplicateTest, KeepsTheLastRecordAndRemovesTheOthersForGood) {
    const DuplicateRow& row = GetParam();
    for (const QString& serverPath : QString(row.folders).split(' ', Qt::SkipEmptyParts)) {
        FolderConfiguration f;
        f.rootId = f.parentId = root.id;
        f.serverPath = serverPath;
        f.localPath = "/home/u" + serverPath;
        ASSERT_TRUE(folders->AddFolder(f));
    }
    for (const QString& serverPath : QString(row.files).split(' ', Qt::SkipEmptyParts)) {
        FileConfiguration f;
        f.rootId = f.folderId = root.id;
        f.serverPath = serverPath;
        f.localPath = "/home/u" + serverPath;
        ASSERT_TRUE(files->AddFile(f));
    }

    sync::test::LogCapture log;
    auto tree = ConfigEntryInfoTreeRetriever(files, folders).GetEntryInfoTree(root);

    EXPECT_EQ(row.keptFolders, TreePaths(tree->folderMap));
    EXPECT_EQ(row.keptFiles, TreePaths(tree->fileMap));
    EXPECT_EQ(row.warnings, log.Messages(log4cplus::WARN_LOG_LEVEL));

    // The repair is in the file: a fresh connection sees only the kept records, and the next
    // retrieval has nothing left to repair.
    Close();
    Open();
    EXPECT_EQ(row.keptFolders, Paths(folders->GetFoldersByRootId(root.id)));
    EXPECT_EQ(row.keptFiles, Paths(files->GetFilesByRootId(root.id, false)));
    log.Clear();
    ConfigEntryInfoTreeRetriever(files, folders).GetEntryInfoTree(root);
    EXPECT_TRUE(log.Messages(log4cplus::WARN_LOG_LEVEL).isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Duplicates, ConfigDuplicateTest, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
