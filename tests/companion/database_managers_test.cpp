// The folder and file managers against a database file.

#include <gtest/gtest.h>

#include "DatabaseBackends.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"

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
    f.referencesOnly = 1;
    f.transferPending = true;
    f.syncStatusSet = true;
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
}

TEST_F(ManagerTest, RootsAreTheirOwnRootAndComeFirstAmongTheirFolders) {
    const auto first = Add(Root("/a"));
    auto second = Add(Root("/b"));
    EXPECT_GE(first.id, 1);
    EXPECT_GT(second.id, first.id);
    const auto sub = Add(Child(second, "sub"));
    auto noRootId = Child(sub, "t");
    noRootId.rootId = -1;  // taken from the parent record
    noRootId = Add(noRootId);
    EXPECT_EQ(noRootId.rootId, second.id);
    EXPECT_TRUE(Same(folders->GetRootFolders(), {first, second}));  // as stored: rootId == id
    EXPECT_EQ(first.inheritedId, first.id);
    EXPECT_TRUE(Same(folders->GetFoldersByRootId(second.id), {second, sub, noRootId}));

    // A root added again after its records were removed becomes a new root.
    const int oldId = second.id;
    ASSERT_TRUE(folders->RemoveRootFolder(oldId));
    second.syncOption |= RootFolderReset;
    second = Add(second);
    EXPECT_NE(second.id, oldId);
    EXPECT_EQ(second.rootId, second.id);
    EXPECT_EQ(second.inheritedId, second.id);
    EXPECT_TRUE(Same(folders->GetRootFolders(), {first, second}));
}

TEST_F(ManagerTest, UnsavedRecordsAreNotWrittenAndMissingOnesHaveIdMinusOne) {
    const auto root = Add(Root("/a"));
    const auto stored = Add(File(root, "x"));
    EXPECT_FALSE(folders->UpdateFolder(Child(root, "never")));
    auto unsaved = stored;
    unsaved.id = -1;
    unsaved.size = 7;
    EXPECT_FALSE(files->UpdateFile(unsaved));
    EXPECT_EQ(folders->GetFoldersByRootId(root.id).size(), 1);
    EXPECT_TRUE(files->GetFileById(stored.id) == stored);

    EXPECT_EQ(folders->GetFolderById(12345).id, -1);
    EXPECT_EQ(folders->GetFolderByPath("/nowhere", 1).id, -1);
    EXPECT_EQ(files->GetFileById(12345).id, -1);
    EXPECT_EQ(files->GetFileByPath("/nowhere", 1).id, -1);
    EXPECT_EQ(files->GetGeneratedFileById(stored.id).id, -1);  // a plain file is not generated
}

TEST_F(ManagerTest, PathLookupsIgnoreCaseButNotTheAccount) {
    const auto sub = Add(Child(Add(Root("/home/Ünïcode/Straße", 4)), "ÄÖÜ Ordner"));
    const auto file = Add(File(sub, "Ème.TXT"));
    const struct {
        const char* path;
        int account;
        int found;
    } rows[] = {
        {"/home/Ünïcode/Straße/ÄÖÜ Ordner", 4, sub.id},
        {"/home/üNÏCODE/straße/äöü ORDNER", 4, sub.id},
        {"/HOME/üNÏCODE/STRASSE/äöü ordner", 4, -1},  // ß is not SS
        {"/home/ünïcode/straße/äöü ordner", 5, -1},
        {"/home/ünïcode/straße/äöü", 4, -1},
        {"/home/ünïcode/straße/äöü ordner/ème.txt", 4, file.id},
        {"/home/ünïcode/straße/äöü ordner/ème.txt", 5, -1},
        {"/home/ünïcode/straße/äöü ordner/eme.txt", 4, -1},
    };
    for (const auto& row : rows) {
        const QString path = QString::fromUtf8(row.path);
        const int found = path.endsWith(".txt") ? files->GetFileByPath(path, row.account).id
                                                : folders->GetFolderByPath(path, row.account).id;
        EXPECT_EQ(found, row.found) << row.path << " account " << row.account;
    }
}

TEST_F(ManagerTest, OrphansAreRecordsWhoseRootRecordIsGone) {
    const auto kept = Add(Root("/kept"));
    Add(File(Add(Child(kept, "s")), "f"));
    auto halfDamaged = Child(kept, "h");
    halfDamaged.rootId = 777;  // its inheritedId still ties it to a live root
    Add(halfDamaged);

    const auto gone = Add(Root("/gone"));
    const auto goneSub = Add(Child(gone, "s"));
    const auto goneSubSub = Add(Child(goneSub, "t"));
    const auto goneFile = Add(File(goneSubSub, "g"));
    folders->RemoveFolder(gone.id);
    EXPECT_TRUE(Same(folders->GetFoldersOfMissingRootFolders(), {goneSub, goneSubSub}));
    EXPECT_TRUE(Same(files->GetFilesOfMissingRootFolders(), {goneFile}));
}

TEST_F(ManagerTest, DuplicateRecordsAreAllListedAndRemovedOneByOne) {
    const auto root = Add(Root("/r"));
    const auto first = Add(File(root, "dup.txt"));
    const auto second = Add(File(root, "DUP.txt"));
    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id, false), {first, second}));
    files->RemoveFile(first.id);
    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id, false), {second}));
    EXPECT_EQ(files->GetFileByPath("/r/dup.txt", 1).id, second.id);
}

TEST_F(ManagerTest, GeneratedFilesAreKeptApartFromPlainFiles) {
    const auto root = Add(Root("/r"));
    const auto plain = Add(File(root, "a.doc"));
    auto generated = [&](const FolderConfiguration& folder, const char* name, int kind) {
        FileConfiguration g = File(folder, name);
        g.isGenerated = 1;
        g.generatedKind = kind;
        g.parentFileId = plain.id;
        return Add(g);
    };
    const auto base = generated(root, "a.doc.BASE", 2);
    const auto preview = generated(root, "a.png", 5);
    const auto otherBase = generated(Add(Root("/o")), "b.BASE", 2);

    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id, false), {plain}));
    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id, true), {plain, base, preview}));
    EXPECT_TRUE(Same(files->GetGeneratedFilesByRootId(root.id, false), {base, preview}));
    EXPECT_TRUE(Same(files->GetGeneratedFilesByKind(2), {base, otherBase}));
    EXPECT_TRUE(files->GetGeneratedFileById(preview.id) == preview);

    files->RemoveGeneratedFileById(plain.id);  // not generated: stays
    files->RemoveGeneratedFileById(base.id);
    files->RemoveGeneratedFile(preview.id);
    EXPECT_TRUE(Same(files->GetFilesByRootId(root.id, true), {plain}));
}

TEST_F(ManagerTest, RemovingARootRemovesWhatBelongsToItOnly) {
    const auto a = Add(Root("/a", 1));
    const auto b = Add(Root("/b", 1));
    const auto c = Add(Root("/c", 2));
    const auto aSub = Add(Child(a, "s"));
    const auto aFile = Add(File(aSub, "f"));
    const auto bFile = Add(File(b, "f"));

    ASSERT_TRUE(folders->RemoveRootFolder(a.id));
    EXPECT_EQ(folders->GetFolderById(aSub.id).id, -1);
    EXPECT_EQ(files->GetFileById(aFile.id).id, -1);
    EXPECT_TRUE(files->GetFileById(bFile.id) == bFile);
    EXPECT_FALSE(folders->RemoveRootFolder(a.id));

    EXPECT_TRUE(folders->IsAuthenticationInUse(1));
    const auto bSub = Add(Child(b, "s"));
    EXPECT_TRUE(folders->DeleteFolderById(bSub.id));
    EXPECT_FALSE(folders->DeleteFolderById(bSub.id));
    ASSERT_TRUE(folders->RemoveRootFolder(b.id));
    EXPECT_FALSE(folders->IsAuthenticationInUse(1));
    EXPECT_TRUE(folders->IsAuthenticationInUse(2));
    EXPECT_TRUE(Same(folders->GetRootFolders(), {c}));
}

}  // namespace
