// The folder and file managers against a database file: what only the file shows (every field
// and time spec after a reopen) and what happens when a statement fails. The behaviour they
// share with the in-memory store is checked on both by config_store_contract_test.

#include <gtest/gtest.h>

#include <optional>

#include "DatabaseBackends.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::test::At;
using sync::test::TimeText;

namespace {

FolderConfiguration Child(const FolderConfiguration& parent, const QString& name) {
    FolderConfiguration f;
    f.authenticationId = parent.authenticationId;
    f.rootId = parent.rootId;
    f.inheritedId = parent.inheritedId;
    f.parentId = parent.id;
    f.name = name;
    f.localPath = parent.localPath + QLatin1Char('/') + name;
    f.serverPath = f.path = parent.serverPath + QLatin1Char('/') + name;
    return f;
}

FolderConfiguration Root(const QString& localPath, int account = 1) {
    FolderConfiguration above;  // never stored: only its path and account are passed down
    above.authenticationId = account;
    above.localPath = localPath.section(QLatin1Char('/'), 0, -2);
    return Child(above, localPath.section(QLatin1Char('/'), -1));
}

FileConfiguration File(const FolderConfiguration& folder, const QString& name) {
    FileConfiguration f;
    f.folderId = folder.id;
    f.rootId = folder.rootId;
    f.inheritedId = folder.inheritedId;
    f.name = name;
    f.localPath = folder.localPath + QLatin1Char('/') + name;
    f.serverPath = folder.serverPath + QLatin1Char('/') + name;
    return f;
}

// Every field away from its default, times of every spec.
FolderConfiguration PopulatedFolder(const FolderConfiguration& root) {
    FolderConfiguration f = Child(root, "Ünterordner ß");
    f.serverAttribute = "attr";
    f.lastModified = At(1600000000123, "Europe/Berlin");
    f.syncScope = 0;
    f.serverCreationFailed = 1;
    f.inheritedValue = 5;
    f.syncOption = SyncHiddenEntries | SkipDownloadingNewFiles;
    f.privilegeInfo = "rw-";
    f.privileges = PrivilegeDownload | PrivilegeUpload;
    f.serverRootPath = "/srv/root";
    f.serverFolderId = "sf-42";
    f.properties = {{"etag", "\"x\""}, {"empty", QString()}};
    f.lastSyncTime = At(1600000001000, Qt::OffsetFromUTC, -5 * 3600);
    f.lastServerSyncRequestTime = At(1600000002000, Qt::LocalTime);
    f.syncStatus = FolderSynchronizationStatus::OutOfSync;
    f.userFlag = true;
    return f;
}

FileConfiguration PopulatedFile(const FolderConfiguration& folder) {
    FileConfiguration f = File(folder, "Résumé.TXT");
    f.checksum = "c0ffee";
    f.contentType = "text/plain";
    f.created = At(1500000000001, Qt::LocalTime);
    f.lastModified = At(1500000000002, Qt::UTC);
    f.size = 5000000000LL;
    f.transferDirection = 3;
    f.properties = {{"version", "7"}, {"versionId", "v-7"}};
    f.lastTransferAttempt = At(1500000000003, Qt::OffsetFromUTC, 19800);
    f.generatedKind = 4;
    f.parentFileId = 99;
    f.privilegeInfo = "r--";
    f.privileges = PrivilegeDownload;
    f.isGenerated = 0;
    f.serverFileId = "id-1";
    f.serverChecksum = "SC";
    f.fileLinks = {FileLink(1LL << 40, "t", "k", QString()), FileLink(-3, QString(), "k2", "x")};
    f.serverModified = At(1500000000004, "Asia/Tokyo");
    f.syncStatus = FileSynchronizationStatus::NotSynchronized;
    // The three flags differ from each other here and in the updates below, so that a swap of
    // two columns cannot pass.
    f.referencesOnly = 0;
    f.transferPending = true;
    f.syncStatusSet = false;
    return f;
}

std::string Times(const FolderConfiguration& f) {
    return TimeText(f.lastModified) + " | " + TimeText(f.lastSyncTime) + " | " +
           TimeText(f.lastServerSyncRequestTime);
}
std::string Times(const FileConfiguration& f) {
    return TimeText(f.created) + " | " + TimeText(f.lastModified) + " | " +
           TimeText(f.lastTransferAttempt) + " | " + TimeText(f.serverModified);
}

// The records listed, in order, equal the expected ones; a failure names the ids.
template <typename Record>
::testing::AssertionResult Same(const QVector<Record>& actual,
                                std::initializer_list<Record> expected) {
    auto ids = [](const auto& records) {
        std::string text;
        for (const Record& r : records) text += std::to_string(r.id) + " ";
        return text;
    };
    if (actual == QVector<Record>(expected)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "ids " << ids(actual) << "instead of " << ids(expected);
}

class ManagerTest : public sync::test::DatabaseTest {
protected:
    FolderConfiguration Add(FolderConfiguration f) {
        EXPECT_TRUE(folders->AddFolder(f)) << f.localPath.toStdString();
        return f;
    }
    FileConfiguration Add(FileConfiguration f) {
        EXPECT_TRUE(files->AddFile(f)) << f.localPath.toStdString();
        return f;
    }
};

TEST_F(ManagerTest, PopulatedRecordsComeBackUnchanged) {
    FolderConfiguration folder = Add(PopulatedFolder(Add(Root("/home/u/Docs"))));
    FileConfiguration file = Add(PopulatedFile(folder));
    auto expectStored = [&](const char* when) {
        SCOPED_TRACE(when);
        Reopen();
        const FolderConfiguration readFolder = folders->GetFolderById(folder.id);
        EXPECT_TRUE(readFolder == folder);
        EXPECT_EQ(Times(readFolder), Times(folder));
        const FileConfiguration readFile = files->GetFileById(file.id);
        EXPECT_TRUE(readFile == file);
        EXPECT_EQ(Times(readFile), Times(file));
    };
    expectStored("added");

    folder.name = "renamed";
    folder.lastModified = QDateTime();
    folder.properties.clear();
    folder.syncStatus = FolderSynchronizationStatus::Synchronized;
    file.fileLinks.removeFirst();
    file.properties.remove("version");
    file.created = QDateTime();
    file.size = 0;
    ASSERT_TRUE(folders->UpdateFolder(folder));
    ASSERT_TRUE(files->UpdateFile(file));
    expectStored("updated");

    const struct {
        const char* name;
        bool transferPending;
        int referencesOnly;
        bool syncStatusSet;
    } flags[] = {
        {"references only", false, 1, false},
        {"status set", false, 0, true},
    };
    for (const auto& row : flags) {
        file.transferPending = row.transferPending;
        file.referencesOnly = row.referencesOnly;
        file.syncStatusSet = row.syncStatusSet;
        ASSERT_TRUE(files->UpdateFile(file));
        expectStored(row.name);
    }
}

// A file record stays while any of its links names a live root record; the link to a folder
// that is not a root does not count.
TEST_F(ManagerTest, FileIsOrphanedOnlyWhenEveryLinkToARootIsBroken) {
    const auto root = Add(Root("/r"));
    const auto sub = Add(Child(root, "s"));
    const auto gone = Add(Root("/gone"));
    folders->RemoveFolder(gone.id);
    const int missing = gone.id;
    const struct {
        const char* name;
        int rootId;
        int inheritedId;
        bool orphan;
    } rows[] = {
        {"both links live", root.id, root.id, false},
        {"root id broken", missing, root.id, false},
        {"inherited id broken", root.id, missing, false},
        {"root id names a plain folder", sub.id, missing, true},
        {"both broken", missing, missing, true},
        {"never linked", -1, -1, true},
    };
    QVector<FileConfiguration> expected;
    for (const auto& row : rows) {
        FileConfiguration f = File(sub, row.name);
        f.rootId = row.rootId;
        f.inheritedId = row.inheritedId;
        f = Add(f);
        if (row.orphan) expected.append(f);
    }
    QStringList listed;
    for (const auto& f : files->GetFilesOfMissingRootFolders()) listed << f.name;
    QStringList wanted;
    for (const auto& f : expected) wanted << f.name;
    EXPECT_EQ(listed.join(", ").toStdString(), wanted.join(", ").toStdString());
}

// A statement that fails half-way through an operation of several statements undoes the
// statements before it, inside a scope and outside one; the scope's other writes stay.
TEST_F(ManagerTest, OperationThatFailsHalfWayLeavesNoneOfItsWrites) {
    const auto root = Add(Root("/r"));
    const auto sub = Add(Child(root, "s"));
    const auto file = Add(File(sub, "f"));
    // Removing a root deletes its files first, then its folders; adding a root inserts the
    // record, then makes it its own root.
    sync::test::ExecOnFile(Path(),
                           "CREATE TRIGGER refuse_delete BEFORE DELETE ON folders "
                           "WHEN old.name = 's' BEGIN SELECT RAISE(ABORT, 'refused'); END;"
                           "CREATE TRIGGER refuse_root BEFORE UPDATE OF root_id ON folders "
                           "WHEN new.name = 'refused root' BEGIN SELECT RAISE(ABORT, 'refused'); "
                           "END;");
    for (const bool inScope : {false, true}) {
        SCOPED_TRACE(inScope ? "inside a scope" : "outside a scope");
        std::optional<sync::database::TransactionalScope> scope;
        if (inScope) scope.emplace();
        const auto kept = Add(Child(root, inScope ? "kept in scope" : "kept"));

        EXPECT_FALSE(folders->RemoveRootFolder(root.id));
        FolderConfiguration refused = Root("/refused root");
        EXPECT_FALSE(folders->AddFolder(refused));
        EXPECT_EQ(refused.id, -1);

        if (scope) scope->commit();
        EXPECT_FALSE(db->InTransaction());
        EXPECT_TRUE(files->GetFileById(file.id) == file);
        EXPECT_TRUE(folders->GetFolderById(kept.id) == kept);
        EXPECT_EQ(folders->GetFolderByPath("/refused root", 1).id, -1);
    }
    Reopen();
    EXPECT_EQ(folders->GetFoldersByRootId(root.id).size(), 4);
    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id), {file}));
}

}  // namespace
