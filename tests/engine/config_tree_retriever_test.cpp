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
struct DuplicateRow {
    const char* name;
    QStringList folders;  // serverPaths below the root record "/Docs"
    QStringList files;
    QStringList keptFolders;  // serverPaths, root included
    QStringList keptFiles;
    QStringList warnings;
};

void PrintTo(const DuplicateRow& row, std::ostream* os) {
    *os << row.name;
}

QString LocalOf(const QString& serverPath) {
    return QStringLiteral("/home/u") + serverPath;
}

const DuplicateRow kRows[] = {
    {"NoDuplicates",
     {"/Docs/Sub"},
     {"/Docs/a.txt", "/Docs/Sub/a.txt"},
     {"/Docs", "/Docs/Sub"},
     {"/Docs/a.txt", "/Docs/Sub/a.txt"},
     {}},
    {"FilesDifferingInCase",
     {},
     {"/Docs/A.txt", "/Docs/b.txt", "/docs/a.TXT"},
     {"/Docs"},
     {"/docs/a.TXT", "/Docs/b.txt"},
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/A.txt"}},
    {"ThreeRecordsForOnePath",
     {},
     {"/Docs/a.txt", "/Docs/A.txt", "/DOCS/A.TXT"},
     {"/Docs"},
     {"/DOCS/A.TXT"},
     {"2 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/a.txt",
      "Removing duplicate file from database: /home/u/Docs/A.txt"}},
    {"FoldersAndFiles",
     {"/Docs/Sub", "/Docs/SUB"},
     {"/Docs/Sub/x", "/Docs/SUB/X"},
     {"/Docs", "/Docs/SUB"},
     {"/Docs/SUB/X"},
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/Sub/x",
      "1 duplicate folder(s) found in sync database. Removing duplicate folders.",
      "Removing duplicate folder from database: /home/u/Docs/Sub"}},
    {"EmptyRoot", {}, {}, {"/Docs"}, {}, {}},
};

class ConfigDuplicateTest : public ::testing::TestWithParam<DuplicateRow> {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        dbPath = tmp.filePath(QStringLiteral("sync.db"));
        Open();
        root.authenticationId = 3;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = LocalOf(root.serverPath);
        root.name = QStringLiteral("Docs");
        ASSERT_TRUE(folders->AddFolder(root));
    }
    void TearDown() override { Close(); }

    void Open() {
        db = ConfigDatabase::Open(dbPath);
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
    QString dbPath;
    std::shared_ptr<ConfigDatabase> db;
    std::shared_ptr<sync::database::FolderConfigManager> folders;
    std::shared_ptr<sync::database::FileConfigManager> files;
    FolderConfiguration root;
};

QStringList Sorted(QStringList list) {
    list.sort();
    return list;
}

TEST_P(ConfigDuplicateTest, KeepsTheLastRecordAndRemovesTheOthersForGood) {
    const DuplicateRow& row = GetParam();
    for (const QString& serverPath : row.folders) {
        FolderConfiguration f;
        f.rootId = root.id;
        f.parentId = root.id;
        f.authenticationId = root.authenticationId;
        f.serverPath = serverPath;
        f.localPath = LocalOf(serverPath);
        ASSERT_TRUE(folders->AddFolder(f));
    }
    for (const QString& serverPath : row.files) {
        FileConfiguration f;
        f.rootId = root.id;
        f.folderId = root.id;
        f.serverPath = serverPath;
        f.localPath = LocalOf(serverPath);
        ASSERT_TRUE(files->AddFile(f));
    }

    sync::test::LogCapture log;
    auto tree = ConfigEntryInfoTreeRetriever(files, folders).GetEntryInfoTree(root);

    ASSERT_TRUE(tree);
    QStringList treeFolders, treeFiles;
    for (auto it = tree->folderMap.cbegin(); it != tree->folderMap.cend(); ++it) {
        EXPECT_EQ(it.key(), it->serverPath.toLower());
        treeFolders.append(it->serverPath);
    }
    for (auto it = tree->fileMap.cbegin(); it != tree->fileMap.cend(); ++it) {
        EXPECT_EQ(it.key(), it->serverPath.toLower());
        treeFiles.append(it->serverPath);
    }
    EXPECT_EQ(Sorted(row.keptFolders), Sorted(treeFolders));
    EXPECT_EQ(Sorted(row.keptFiles), Sorted(treeFiles));
    EXPECT_EQ(row.warnings, log.Messages(log4cplus::WARN_LOG_LEVEL));

    // The repair is in the file: a fresh connection sees only the kept records, and the next
    // retrieval has nothing left to repair.
    Close();
    Open();
    QStringList storedFolders, storedFiles;
    for (const auto& f : folders->GetFoldersByRootId(root.id)) storedFolders.append(f.serverPath);
    for (const auto& f : files->GetFilesByRootId(root.id, false)) storedFiles.append(f.serverPath);
    EXPECT_EQ(Sorted(row.keptFolders), Sorted(storedFolders));
    EXPECT_EQ(Sorted(row.keptFiles), Sorted(storedFiles));
    log.Clear();
    ConfigEntryInfoTreeRetriever(files, folders).GetEntryInfoTree(root);
    EXPECT_TRUE(log.Messages(log4cplus::WARN_LOG_LEVEL).isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Duplicates, ConfigDuplicateTest, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
