// Conformance of the folder, file and account managers: every backend in BackendTypes must pass.

#include <gtest/gtest.h>

#include "DatabaseBackends.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"

using namespace sync::config;
using namespace sync::test;

namespace {

FolderConfiguration Root(const QString& localPath, int account) {
    FolderConfiguration f;
    f.authenticationId = account;
    f.name = localPath.section(QLatin1Char('/'), -1);
    f.localPath = localPath;
    f.serverPath = QStringLiteral("/") + f.name;
    f.path = f.serverPath;
    return f;
}

FolderConfiguration Child(const FolderConfiguration& parent, const QString& name) {
    FolderConfiguration f;
    f.authenticationId = parent.authenticationId;
    f.rootId = parent.rootId;
    f.inheritedId = parent.inheritedId;
    f.parentId = parent.id;
    f.name = name;
    f.localPath = parent.localPath + QLatin1Char('/') + name;
    f.serverPath = parent.serverPath + QLatin1Char('/') + name;
    f.path = f.serverPath;
    return f;
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
    FolderConfiguration f = Child(root, QStringLiteral("Ünterordner ß"));
    f.serverAttribute = QStringLiteral("attr");
    f.lastModified = ZoneTime(1600000000123, "Europe/Berlin");
    f.syncScope = 0;
    f.serverCreationFailed = 1;
    f.inheritedValue = 5;
    f.syncOption = SyncHiddenEntries | SkipDownloadingNewFiles;
    f.privilegeInfo = QStringLiteral("rw-");
    f.privileges = PrivilegeDownload | PrivilegeUpload;
    f.serverRootPath = QStringLiteral("/srv/root");
    f.serverFolderId = QStringLiteral("sf-42");
    f.properties = {{QStringLiteral("etag"), QStringLiteral("\"x\"")},
                    {QStringLiteral("empty"), QString()}};
    f.lastSyncTime = OffsetTime(1600000001000, -5 * 3600);
    f.lastServerSyncRequestTime = LocalTime(1600000002000);
    f.syncStatus = FolderSynchronizationStatus::OutOfSync;
    f.userFlag = true;
    return f;
}

FileConfiguration PopulatedFile(const FolderConfiguration& folder) {
    FileConfiguration f = File(folder, QStringLiteral("Résumé.TXT"));
    f.checksum = QStringLiteral("c0ffee");
    f.contentType = QStringLiteral("text/plain");
    f.created = LocalTime(1500000000001);
    f.lastModified = UtcTime(1500000000002);
    f.size = 5000000000LL;
    f.transferDirection = 3;
    f.properties = {{QStringLiteral("version"), QStringLiteral("7")},
                    {QStringLiteral("versionId"), QStringLiteral("v-7")}};
    f.lastTransferAttempt = OffsetTime(1500000000003, 19800);
    f.generatedKind = 4;
    f.parentFileId = 99;
    f.privilegeInfo = QStringLiteral("r--");
    f.privileges = PrivilegeDownload;
    f.isGenerated = 0;
    f.serverFileId = QStringLiteral("id-1");
    f.serverChecksum = QStringLiteral("SC");
    f.fileLinks = {FileLink(1LL << 40, QStringLiteral("t"), QStringLiteral("k"), QString()),
                   FileLink(-3, QString(), QStringLiteral("k2"), QStringLiteral("x"))};
    f.serverModified = ZoneTime(1500000000004, "Asia/Tokyo");
    f.syncStatus = FileSynchronizationStatus::NotSynchronized;
    f.referencesOnly = 1;
    f.transferPending = true;
    f.syncStatusSet = true;
    return f;
}

void ExpectFolderTimes(const FolderConfiguration& e, const FolderConfiguration& a) {
    ExpectSameTime(e.lastModified, a.lastModified, "lastModified");
    ExpectSameTime(e.lastSyncTime, a.lastSyncTime, "lastSyncTime");
    ExpectSameTime(e.lastServerSyncRequestTime, a.lastServerSyncRequestTime,
                   "lastServerSyncRequestTime");
}

void ExpectFileTimes(const FileConfiguration& e, const FileConfiguration& a) {
    ExpectSameTime(e.created, a.created, "created");
    ExpectSameTime(e.lastModified, a.lastModified, "lastModified");
    ExpectSameTime(e.lastTransferAttempt, a.lastTransferAttempt, "lastTransferAttempt");
    ExpectSameTime(e.serverModified, a.serverModified, "serverModified");
}

template <typename Backend>
class ConfigManagerConformance : public ::testing::Test {
protected:
    FolderConfiguration AddRoot(const QString& localPath, int account = 1) {
        FolderConfiguration root = Root(localPath, account);
        EXPECT_TRUE(backend.Folders()->AddFolder(root));
        return root;
    }
    FolderConfiguration AddChild(const FolderConfiguration& parent, const QString& name) {
        FolderConfiguration f = Child(parent, name);
        EXPECT_TRUE(backend.Folders()->AddFolder(f));
        return f;
    }
    FileConfiguration AddFile(const FolderConfiguration& folder, const QString& name) {
        FileConfiguration f = File(folder, name);
        backend.Files()->AddFile(f);
        return f;
    }

    Backend backend;
};

using BackendTypes = ::testing::Types<SqliteBackend>;
TYPED_TEST_SUITE(ConfigManagerConformance, BackendTypes);

TYPED_TEST(ConfigManagerConformance, FolderRecordComesBackUnchangedAfterReopen) {
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/home/u/Docs"));
    FolderConfiguration folder = PopulatedFolder(root);
    ASSERT_TRUE(this->backend.Folders()->AddFolder(folder));
    ASSERT_GE(folder.id, 1);

    this->backend.Reopen();
    const FolderConfiguration read = this->backend.Folders()->GetFolderById(folder.id);
    EXPECT_TRUE(read == folder);
    ExpectFolderTimes(folder, read);

    folder.name = QStringLiteral("renamed");
    folder.lastModified = QDateTime();
    folder.properties.clear();
    folder.syncStatus = FolderSynchronizationStatus::Synchronized;
    ASSERT_TRUE(this->backend.Folders()->UpdateFolder(folder));
    const FolderConfiguration updated = this->backend.Folders()->GetFolderById(folder.id);
    EXPECT_TRUE(updated == folder);
    EXPECT_TRUE(updated.lastModified.isNull());
}

TYPED_TEST(ConfigManagerConformance, FileRecordComesBackUnchangedAfterReopen) {
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/home/u/Docs"));
    FileConfiguration file = PopulatedFile(root);
    ASSERT_TRUE(this->backend.Files()->AddFile(file));
    ASSERT_GE(file.id, 1);

    this->backend.Reopen();
    const FileConfiguration read = this->backend.Files()->GetFileById(file.id);
    EXPECT_TRUE(read == file);
    ExpectFileTimes(file, read);

    file.fileLinks.removeFirst();
    file.properties.remove(QStringLiteral("version"));
    file.created = QDateTime();
    file.size = 0;
    ASSERT_TRUE(this->backend.Files()->UpdateFile(file));
    const FileConfiguration updated = this->backend.Files()->GetFileById(file.id);
    EXPECT_TRUE(updated == file);
    ExpectFileTimes(file, updated);
}

TYPED_TEST(ConfigManagerConformance, AddedRootIsItsOwnRootAndListsItself) {
    auto folders = this->backend.Folders();
    const FolderConfiguration first = this->AddRoot(QStringLiteral("/a"));
    const FolderConfiguration second = this->AddRoot(QStringLiteral("/b"));
    EXPECT_GE(first.id, 1);
    EXPECT_EQ(first.rootId, first.id);
    EXPECT_EQ(first.inheritedId, first.id);
    EXPECT_TRUE(first.isRoot());
    const FolderConfiguration sub = this->AddChild(second, QStringLiteral("sub"));

    const auto roots = folders->GetRootFolders();
    ASSERT_EQ(roots.size(), 2);
    EXPECT_TRUE(roots[0] == first);
    EXPECT_TRUE(roots[1] == second);

    const auto ofSecond = folders->GetFoldersByRootId(second.id);
    ASSERT_EQ(ofSecond.size(), 2);
    EXPECT_TRUE(ofSecond[0] == second);
    EXPECT_TRUE(ofSecond[1] == sub);
}

TYPED_TEST(ConfigManagerConformance, RootAddedAgainGetsANewIdAsItsRoot) {
    auto folders = this->backend.Folders();
    FolderConfiguration root = this->AddRoot(QStringLiteral("/a"));
    const int oldId = root.id;
    ASSERT_TRUE(folders->RemoveRootFolder(oldId));
    root.syncOption |= RootFolderReset;
    ASSERT_TRUE(folders->AddFolder(root));
    EXPECT_NE(root.id, oldId);
    EXPECT_EQ(root.rootId, root.id);
    EXPECT_EQ(root.inheritedId, root.id);
    const auto roots = folders->GetRootFolders();
    ASSERT_EQ(roots.size(), 1);
    EXPECT_TRUE(roots[0] == root);
}

TYPED_TEST(ConfigManagerConformance, FolderWithoutRootIdTakesItsParentsRoot) {
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/a"));
    FolderConfiguration sub = Child(root, QStringLiteral("sub"));
    sub.rootId = -1;
    ASSERT_TRUE(this->backend.Folders()->AddFolder(sub));
    EXPECT_EQ(sub.rootId, root.id);
    EXPECT_EQ(this->backend.Folders()->GetFolderById(sub.id).rootId, root.id);
}

TYPED_TEST(ConfigManagerConformance, RecordsWithoutIdAreNeitherWrittenNorFound) {
    auto folders = this->backend.Folders();
    auto files = this->backend.Files();
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/a"));
    const FileConfiguration stored = this->AddFile(root, QStringLiteral("x"));

    FolderConfiguration unsaved = Child(root, QStringLiteral("never"));
    EXPECT_FALSE(folders->UpdateFolder(unsaved));
    FileConfiguration unsavedFile = File(root, QStringLiteral("x"));
    EXPECT_FALSE(files->UpdateFile(unsavedFile));
    EXPECT_EQ(folders->GetFoldersByRootId(root.id).size(), 1);
    EXPECT_TRUE(files->GetFileById(stored.id) == stored);

    EXPECT_EQ(folders->GetFolderById(12345).id, -1);
    EXPECT_EQ(folders->GetFolderByPath(QStringLiteral("/nowhere"), 1).id, -1);
    EXPECT_EQ(files->GetFileById(12345).id, -1);
    EXPECT_EQ(files->GetFileByPath(QStringLiteral("/nowhere"), 1).id, -1);
    // A plain file is not a generated file.
    EXPECT_EQ(files->GetGeneratedFileById(stored.id).id, -1);
}

TYPED_TEST(ConfigManagerConformance, PathLookupsIgnoreCaseButNotTheAccount) {
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/home/Ünïcode/Straße"), 4);
    const FolderConfiguration sub = this->AddChild(root, QStringLiteral("ÄÖÜ Ordner"));
    const FileConfiguration file = this->AddFile(sub, QStringLiteral("Ème.TXT"));
    struct Row {
        QString query;
        int account;
        bool found;
    };
    const Row folderRows[] = {
        {QStringLiteral("/home/Ünïcode/Straße/ÄÖÜ Ordner"), 4, true},
        {QStringLiteral("/HOME/üNÏCODE/STRASSE/äöü ordner"), 4, false},  // ß is not SS
        {QStringLiteral("/home/üNÏCODE/straße/äöü ORDNER"), 4, true},
        {QStringLiteral("/home/ünïcode/straße/äöü ordner"), 5, false},
        {QStringLiteral("/home/ünïcode/straße/äöü"), 4, false},
    };
    for (const auto& row : folderRows) {
        SCOPED_TRACE(row.query.toStdString());
        const FolderConfiguration found =
            this->backend.Folders()->GetFolderByPath(row.query, row.account);
        EXPECT_EQ(found.id, row.found ? sub.id : -1);
    }
    const Row fileRows[] = {
        {QStringLiteral("/home/ünïcode/straße/äöü ordner/ème.txt"), 4, true},
        {QStringLiteral("/home/ünïcode/straße/äöü ordner/ème.txt"), 5, false},
        {QStringLiteral("/home/ünïcode/straße/äöü ordner/eme.txt"), 4, false},
    };
    for (const auto& row : fileRows) {
        SCOPED_TRACE(row.query.toStdString());
        const FileConfiguration found =
            this->backend.Files()->GetFileByPath(row.query, row.account);
        EXPECT_EQ(found.id, row.found ? file.id : -1);
        if (row.found) {
            EXPECT_TRUE(found == file);
        }
    }
}

TYPED_TEST(ConfigManagerConformance, OrphansAreRecordsWhoseRootRecordIsGone) {
    auto folders = this->backend.Folders();
    auto files = this->backend.Files();
    const FolderConfiguration kept = this->AddRoot(QStringLiteral("/kept"));
    const FolderConfiguration keptSub = this->AddChild(kept, QStringLiteral("s"));
    this->AddFile(keptSub, QStringLiteral("f"));
    // Only its rootId is damaged: the inheritedId still ties it to a live root.
    FolderConfiguration halfDamaged = Child(kept, QStringLiteral("h"));
    halfDamaged.rootId = 777;
    ASSERT_TRUE(folders->AddFolder(halfDamaged));

    const FolderConfiguration gone = this->AddRoot(QStringLiteral("/gone"));
    const FolderConfiguration goneSub = this->AddChild(gone, QStringLiteral("s"));
    const FolderConfiguration goneSubSub = this->AddChild(goneSub, QStringLiteral("t"));
    const FileConfiguration goneFile = this->AddFile(goneSubSub, QStringLiteral("g"));
    folders->RemoveFolder(gone.id);

    const auto orphanFolders = folders->GetFoldersOfMissingRootFolders();
    ASSERT_EQ(orphanFolders.size(), 2);
    EXPECT_TRUE(orphanFolders[0] == goneSub);
    EXPECT_TRUE(orphanFolders[1] == goneSubSub);
    const auto orphanFiles = files->GetFilesOfMissingRootFolders();
    ASSERT_EQ(orphanFiles.size(), 1);
    EXPECT_TRUE(orphanFiles[0] == goneFile);
}

TYPED_TEST(ConfigManagerConformance, DuplicateRecordsAreAllListedAndRemovedOneByOne) {
    auto files = this->backend.Files();
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/r"));
    const FileConfiguration first = this->AddFile(root, QStringLiteral("dup.txt"));
    FileConfiguration second = File(root, QStringLiteral("DUP.txt"));
    ASSERT_TRUE(files->AddFile(second));
    ASSERT_GT(second.id, first.id);

    auto listed = files->GetFilesByRootId(root.id, false);
    ASSERT_EQ(listed.size(), 2);
    EXPECT_EQ(listed[0].id, first.id);
    EXPECT_EQ(listed[1].id, second.id);

    files->RemoveFile(first.id);
    listed = files->GetFilesByRootId(root.id, false);
    ASSERT_EQ(listed.size(), 1);
    EXPECT_TRUE(listed[0] == second);
    EXPECT_EQ(files->GetFileByPath(QStringLiteral("/r/dup.txt"), 1).id, second.id);
}

TYPED_TEST(ConfigManagerConformance, GeneratedFilesAreKeptApartFromPlainFiles) {
    auto files = this->backend.Files();
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/r"));
    const FolderConfiguration other = this->AddRoot(QStringLiteral("/o"));
    const FileConfiguration plain = this->AddFile(root, QStringLiteral("a.doc"));
    auto generated = [&](const FolderConfiguration& folder, const QString& name, int kind) {
        FileConfiguration g = File(folder, name);
        g.isGenerated = 1;
        g.generatedKind = kind;
        g.parentFileId = plain.id;
        EXPECT_TRUE(files->AddFile(g));
        return g;
    };
    const FileConfiguration base = generated(root, QStringLiteral("a.doc.BASE"), 2);
    const FileConfiguration preview = generated(root, QStringLiteral("a.png"), 5);
    const FileConfiguration otherBase = generated(other, QStringLiteral("b.BASE"), 2);

    EXPECT_EQ(files->GetFilesByRootId(root.id, false).size(), 1);
    EXPECT_EQ(files->GetFilesByRootId(root.id, true).size(), 3);
    const auto ofRoot = files->GetGeneratedFilesByRootId(root.id, false);
    ASSERT_EQ(ofRoot.size(), 2);
    EXPECT_TRUE(ofRoot[0] == base);
    EXPECT_TRUE(ofRoot[1] == preview);
    const auto bases = files->GetGeneratedFilesByKind(2);
    ASSERT_EQ(bases.size(), 2);
    EXPECT_TRUE(bases[0] == base);
    EXPECT_TRUE(bases[1] == otherBase);
    EXPECT_TRUE(files->GetGeneratedFileById(preview.id) == preview);

    files->RemoveGeneratedFileById(plain.id);  // not generated: stays
    files->RemoveGeneratedFileById(base.id);
    files->RemoveGeneratedFile(preview.id);
    EXPECT_EQ(files->GetFileById(plain.id).id, plain.id);
    EXPECT_EQ(files->GetFileById(base.id).id, -1);
    EXPECT_TRUE(files->GetGeneratedFilesByRootId(root.id, false).isEmpty());
}

TYPED_TEST(ConfigManagerConformance, RemovingARootRemovesWhatBelongsToItOnly) {
    auto folders = this->backend.Folders();
    auto files = this->backend.Files();
    const FolderConfiguration a = this->AddRoot(QStringLiteral("/a"), 1);
    const FolderConfiguration b = this->AddRoot(QStringLiteral("/b"), 1);
    const FolderConfiguration c = this->AddRoot(QStringLiteral("/c"), 2);
    const FolderConfiguration aSub = this->AddChild(a, QStringLiteral("s"));
    const FileConfiguration aFile = this->AddFile(aSub, QStringLiteral("f"));
    const FileConfiguration bFile = this->AddFile(b, QStringLiteral("f"));

    ASSERT_TRUE(folders->RemoveRootFolder(a.id));
    EXPECT_EQ(folders->GetFolderById(a.id).id, -1);
    EXPECT_EQ(folders->GetFolderById(aSub.id).id, -1);
    EXPECT_EQ(files->GetFileById(aFile.id).id, -1);
    EXPECT_TRUE(files->GetFileById(bFile.id) == bFile);
    EXPECT_FALSE(folders->RemoveRootFolder(a.id));

    EXPECT_TRUE(folders->IsAuthenticationInUse(1));
    ASSERT_TRUE(folders->RemoveRootFolder(b.id));
    EXPECT_FALSE(folders->IsAuthenticationInUse(1));
    EXPECT_TRUE(folders->IsAuthenticationInUse(2));
    ASSERT_EQ(folders->GetRootFolders().size(), 1);
    EXPECT_EQ(folders->GetRootFolders()[0].id, c.id);
}

TYPED_TEST(ConfigManagerConformance, DeleteFolderByIdTellsWhetherARecordWent) {
    auto folders = this->backend.Folders();
    const FolderConfiguration root = this->AddRoot(QStringLiteral("/a"));
    const FolderConfiguration sub = this->AddChild(root, QStringLiteral("s"));
    EXPECT_TRUE(folders->DeleteFolderById(sub.id));
    EXPECT_FALSE(folders->DeleteFolderById(sub.id));
    EXPECT_EQ(folders->GetFoldersByRootId(root.id).size(), 1);
    folders->ReleaseMemory();
    EXPECT_TRUE(folders->GetFolderById(root.id) == root);
}

}  // namespace
