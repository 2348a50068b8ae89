// The fake server keeps the promises of the remote service's interfaces; scenarios rely on it.

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include "FakeServer.h"
#include "HttpException.h"
#include "QFileWrapper.h"

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;
using sync::test::FakeServer;

namespace {

QByteArray Read(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

void Write(const QString& path, const QByteArray& content) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(content);
}

class FakeServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        root.serverPath = "/Docs";
        root.localPath = tmp.filePath("Docs");
        QDir().mkpath(root.localPath);
        server->PutFile("/Docs/a.txt", "hello");
        server->PutFile("/Docs/sub/b.txt", "bee", sync::config::PrivilegeDownload);
    }

    int List(QVector<FolderConfiguration>* folders = nullptr,
             QVector<FileConfiguration>* files = nullptr) {
        auto f = std::make_shared<QVector<FolderConfiguration>>();
        auto g = std::make_shared<QVector<FileConfiguration>>();
        const int code = server->GetFolderTree(root, f, g);
        if (folders) *folders = *f;
        if (files) *files = *g;
        return code;
    }
    FileConfiguration Local(const QString& below) {
        FileConfiguration f;
        f.serverPath = "/Docs/" + below;
        f.localPath = root.localPath + "/" + below;
        return f;
    }

    QTemporaryDir tmp;
    FolderConfiguration root;
    std::shared_ptr<FakeServer> server = std::make_shared<FakeServer>();
};

TEST_F(FakeServerTest, ListingsFillWhatTheRetrieversAndDiffersRead) {
    QVector<FolderConfiguration> folders;
    QVector<FileConfiguration> files;
    ASSERT_EQ(List(&folders, &files), 0);
    ASSERT_EQ(folders.size(), 1);
    EXPECT_EQ(folders[0].localPath, root.localPath + "/sub");
    EXPECT_EQ(folders[0].serverFolderId, server->Find("/Docs/sub")->id);
    ASSERT_EQ(files.size(), 2);
    const FileConfiguration b = files[1];
    EXPECT_EQ(b.serverPath, "/Docs/sub/b.txt");
    EXPECT_EQ(b.localPath, root.localPath + "/sub/b.txt");
    EXPECT_EQ(b.name, "b.txt");
    EXPECT_EQ(b.privileges, sync::config::PrivilegeDownload);
    EXPECT_EQ(b.serverChecksum,
              QCryptographicHash::hash("bee", QCryptographicHash::Sha256).toHex());

    // A new version keeps the id and changes both version marks.
    server->PutFile("/Docs/sub/b.txt", "bee2", sync::config::PrivilegeDownload);
    server->reportsHashes = false;
    ASSERT_EQ(List(nullptr, &files), 0);
    EXPECT_EQ(files[1].serverFileId, b.serverFileId);
    EXPECT_EQ(files[1].properties.value("version"), "2");
    EXPECT_NE(files[1].properties.value("versionId"), b.properties.value("versionId"));
    EXPECT_EQ(files[1].serverChecksum, "");

    auto direct = std::make_shared<QVector<FileConfiguration>>();
    ASSERT_EQ(server->GetRootFiles(root, direct), 0);
    ASSERT_EQ(direct->size(), 1);
    EXPECT_EQ(direct->at(0).serverPath, "/Docs/a.txt");
}

TEST_F(FakeServerTest, ListingAnswers) {
    const struct {
        const char* name;
        std::function<void()> before, between;
        int first, second;
    } rows[] = {
        {"missing root", [&] { server->Remove("/Docs"); }, [] {}, 404, 404},
        {"fault on the operation", [&] { server->FailOn("GetFolderTree", 500); }, [] {}, 500, 500},
        {"fault on the second listing of the root", [&] { server->FailOn("/Docs", 503, 2); }, [] {},
         0, 503},
        {"unchanged root", [&] { server->answersNotModified = true; }, [] {}, 0, 304},
        {"changed root", [&] { server->answersNotModified = true; },
         [&] { server->PutFile("/Docs/sub/c.txt", "c"); }, 0, 0},
        {"change elsewhere", [&] { server->answersNotModified = true; },
         [&] { server->PutFile("/Other/c.txt", "c"); }, 0, 304},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        server = std::make_shared<FakeServer>();
        server->PutFile("/Docs/a.txt", "hello");
        row.before();
        EXPECT_EQ(List(), row.first);
        row.between();
        EXPECT_EQ(List(), row.second);
    }
}

TEST_F(FakeServerTest, TransfersGoThroughTheDisk) {
    Write(root.localPath + "/up.txt", "uploaded");
    QList<FileConfiguration> up{Local("up.txt")};
    SyncResults r = server->UploadFiles({}, root, up);
    EXPECT_EQ(r.FileServerCreations, 1);
    EXPECT_EQ(up[0].syncStatus, FileSynchronizationStatus::Synchronized);
    EXPECT_EQ(up[0].serverFileId, server->Find("/Docs/up.txt")->id);
    EXPECT_EQ(server->Find("/Docs/up.txt")->content, "uploaded");

    QDir().mkpath(root.localPath + "/sub");
    QList<sync::thread::SynchronizedFileConfiguration> down{{Local("sub/b.txt"), {}}};
    r = server->DownloadFiles({}, root, down);
    EXPECT_EQ(r.FileLocalCreations, 1);
    EXPECT_EQ(Read(root.localPath + "/sub/b.txt"), "bee");
    EXPECT_EQ(QFileInfo(root.localPath + "/sub/b.txt").lastModified(),
              server->Find("/Docs/sub/b.txt")->modified);
    EXPECT_EQ(down[0].serverRecord.syncStatus, FileSynchronizationStatus::Synchronized);

    QList<FileConfiguration> gone{Local("up.txt"), Local("never-there.txt")};
    r = server->DeleteFiles(root, gone);
    EXPECT_EQ(r.FileServerDeletions, 2);
    EXPECT_EQ(server->Find("/Docs/up.txt"), nullptr);
}

TEST_F(FakeServerTest, FailuresLookAsEachOperationPromises) {
    for (const char* name : {"one.txt", "two.txt", "three.txt"})
        Write(root.localPath + "/" + name, name);
    server->FailOn("Upload", 507, 2);
    QList<FileConfiguration> up{Local("one.txt"), Local("two.txt"), Local("three.txt"),
                                Local("missing/parent.txt"), Local("sub/b.txt")};
    Write(root.localPath + "/missing/parent.txt", "p");
    Write(root.localPath + "/sub/b.txt", "local bee");
    const SyncResults r = server->UploadFiles({}, root, up);
    EXPECT_EQ(r.FileServerCreations, 2);
    EXPECT_EQ(r.FileServerCreationErrorPaths,
              QStringList({up[1].localPath, up[3].localPath, up[4].localPath}));
    EXPECT_EQ(r.errorCodes, (QMap<int, int>{{403, 1}, {409, 1}, {507, 1}}));
    EXPECT_EQ(up[1].syncStatus, FileSynchronizationStatus::OutOfSync);
    EXPECT_EQ(server->Find("/Docs/sub/b.txt")->content, "bee");

    server->FailOn("UploadFiles", 401);
    EXPECT_THROW(server->UploadFiles({}, root, up), sync::http::HttpException);

    // A download cut off leaves the file as it was and half the content in its temporary file.
    Write(root.localPath + "/a.txt", "old");
    server->FailOn("/Docs/a.txt", 500);
    QList<sync::thread::SynchronizedFileConfiguration> down{{Local("a.txt"), {}}};
    EXPECT_EQ(server->DownloadFiles({}, root, down).errorCodes, (QMap<int, int>{{500, 1}}));
    EXPECT_EQ(Read(root.localPath + "/a.txt"), "old");
    sync::core::QFileWrapper temporary(root.localPath + "/a.txt");
    EXPECT_EQ(Read(temporary.GetTemporaryFile(root.localPath)), "he");

    FolderConfiguration sub;
    sub.serverPath = "/Docs/sub";
    server->FailOn("DeleteFolder", 404, 1);
    EXPECT_EQ(server->DeleteFolder(sub).FolderServerDeletions, 1);
    EXPECT_NE(server->Find("/Docs/sub"), nullptr);
    server->FailOn("DeleteFolder", 500);
    EXPECT_THROW(server->DeleteFolder(sub), sync::http::HttpException);

    FolderConfiguration info, deep;
    deep.serverPath = "/Docs/x/y";
    EXPECT_EQ(server->CreateFolder(deep, QString(), false).errorCodes, (QMap<int, int>{{409, 1}}));
    EXPECT_EQ(server->CreateFolder(deep, QString(), true).FolderServerCreations, 1);
    EXPECT_TRUE(server->GetFolderInfo(deep, info));
    EXPECT_EQ(info.serverFolderId, deep.serverFolderId);
    server->FailOn("GetFolderInfo", 404);
    EXPECT_FALSE(server->GetFolderInfo(deep, info));
    server->FailOn("GetFolderInfo", 502);
    EXPECT_THROW(server->GetFolderInfo(deep, info), sync::http::HttpException);
}

}  // namespace
