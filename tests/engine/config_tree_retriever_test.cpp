#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigEntryInfoTreeRetriever.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "TransactionalScope.h"

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::syncService::ConfigEntryInfoTreeRetriever;
using ::testing::_;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;

namespace {

// Records the transaction calls and the removals in one timeline.
class RecordingBackend : public sync::database::ITransactionBackend {
public:
    explicit RecordingBackend(QStringList& events) : _events(events) {}
    void Begin(int depth) override { _events.append(QStringLiteral("begin %1").arg(depth)); }
    void Commit(int depth) override { _events.append(QStringLiteral("commit %1").arg(depth)); }
    void Rollback(int depth) noexcept override {
        _events.append(QStringLiteral("rollback %1").arg(depth));
    }

private:
    QStringList& _events;
};

struct Rec {
    int id;
    const char* serverPath;
};

struct DuplicateRow {
    const char* name;
    std::vector<Rec> folders;
    std::vector<Rec> files;
    // Keys and the ids kept under them, then the ids removed in order.
    std::vector<Rec> keptFolders;
    std::vector<Rec> keptFiles;
    QStringList expectedEvents;
    QStringList expectedWarnings;
};

void PrintTo(const DuplicateRow& row, std::ostream* os) {
    *os << row.name;
}

const DuplicateRow kRows[] = {
    {"NoDuplicates",
     {{1, "/Docs"}, {2, "/Docs/Sub"}},
     {{10, "/Docs/a.txt"}, {11, "/Docs/Sub/a.txt"}},
     {{1, "/docs"}, {2, "/docs/sub"}},
     {{10, "/docs/a.txt"}, {11, "/docs/sub/a.txt"}},
     {},
     {}},
    {"FilesDifferingInCase",
     {{1, "/Docs"}},
     {{10, "/Docs/A.txt"}, {11, "/docs/a.TXT"}},
     {{1, "/docs"}},
     {{11, "/docs/a.txt"}},
     {"begin 0", "remove file 10", "commit 0"},
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/A.txt"}},
    {"ThreeRecordsForOnePath",
     {{1, "/Docs"}},
     {{10, "/Docs/a.txt"}, {12, "/Docs/b.txt"}, {11, "/Docs/a.txt"}, {13, "/DOCS/A.TXT"}},
     {{1, "/docs"}},
     {{13, "/docs/a.txt"}, {12, "/docs/b.txt"}},
     {"begin 0", "remove file 10", "remove file 11", "commit 0"},
     {"2 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/a.txt",
      "Removing duplicate file from database: /home/u/Docs/a.txt"}},
    {"FoldersAndFilesEachInTheirOwnScope",
     {{1, "/Docs"}, {2, "/Docs/Sub"}, {3, "/Docs/SUB"}},
     {{10, "/Docs/a.txt"}, {11, "/Docs/a.txt"}},
     {{1, "/docs"}, {3, "/docs/sub"}},
     {{11, "/docs/a.txt"}},
     {"begin 0", "remove file 10", "commit 0", "begin 0", "remove folder 2", "commit 0"},
     {"1 duplicate file(s) found in sync database. Removing duplicate files.",
      "Removing duplicate file from database: /home/u/Docs/a.txt",
      "1 duplicate folder(s) found in sync database. Removing duplicate folders.",
      "Removing duplicate folder from database: /home/u/Docs/Sub"}},
    {"EmptyRoot", {}, {}, {}, {}, {}, {}},
};

class ConfigDuplicateTest : public ::testing::TestWithParam<DuplicateRow> {
protected:
    void SetUp() override {
        sync::database::TransactionalScope::SetBackend(std::make_shared<RecordingBackend>(events));
    }
    void TearDown() override { sync::database::TransactionalScope::SetBackend(nullptr); }
    QStringList events;
};

QString LocalOf(const char* serverPath) {
    return QStringLiteral("/home/u") + QString::fromLatin1(serverPath);
}

TEST_P(ConfigDuplicateTest, KeepsTheLastRecordAndRemovesTheOthers) {
    const DuplicateRow& row = GetParam();
    QVector<FolderConfiguration> folders;
    for (const Rec& r : row.folders) {
        FolderConfiguration f;
        f.id = r.id;
        f.rootId = 1;
        f.serverPath = QString::fromLatin1(r.serverPath);
        f.localPath = LocalOf(r.serverPath);
        folders.append(f);
    }
    QVector<FileConfiguration> files;
    for (const Rec& r : row.files) {
        FileConfiguration f;
        f.id = r.id;
        f.rootId = 1;
        f.serverPath = QString::fromLatin1(r.serverPath);
        f.localPath = LocalOf(r.serverPath);
        files.append(f);
    }
    auto fileDb = std::make_shared<NiceMock<MockFileConfigManager>>();
    auto folderDb = std::make_shared<NiceMock<MockFolderConfigManager>>();
    EXPECT_CALL(*fileDb, GetFilesByRootId(1, false)).WillOnce(Return(files));
    EXPECT_CALL(*folderDb, GetFoldersByRootId(1)).WillOnce(Return(folders));
    ON_CALL(*fileDb, RemoveFile(_)).WillByDefault(Invoke([this](int id) {
        events.append(QStringLiteral("remove file %1").arg(id));
    }));
    ON_CALL(*folderDb, RemoveFolder(_)).WillByDefault(Invoke([this](int id) {
        events.append(QStringLiteral("remove folder %1").arg(id));
    }));

    FolderConfiguration root;
    root.id = 1;
    root.rootId = 1;
    LogCapture log;
    ConfigEntryInfoTreeRetriever retriever(fileDb, folderDb);
    auto tree = retriever.GetEntryInfoTree(root);

    ASSERT_TRUE(tree);
    EXPECT_EQ(static_cast<int>(row.keptFolders.size()), tree->folderMap.size());
    for (const Rec& kept : row.keptFolders)
        EXPECT_EQ(kept.id, tree->folderMap.value(QString::fromLatin1(kept.serverPath)).id)
            << kept.serverPath;
    EXPECT_EQ(static_cast<int>(row.keptFiles.size()), tree->fileMap.size());
    for (const Rec& kept : row.keptFiles)
        EXPECT_EQ(kept.id, tree->fileMap.value(QString::fromLatin1(kept.serverPath)).id)
            << kept.serverPath;
    EXPECT_EQ(row.expectedEvents, events);
    EXPECT_EQ(row.expectedWarnings, log.Messages(log4cplus::WARN_LOG_LEVEL));
}

INSTANTIATE_TEST_SUITE_P(Duplicates, ConfigDuplicateTest, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
