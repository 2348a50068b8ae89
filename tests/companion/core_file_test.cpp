#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>

#include "CoreFactory.h"
#include "SyncConsts.h"

using sync::factory::CoreFactory;

namespace {

void WriteFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("x");
}

// Sets an environment variable until the end of the scope.
struct ScopedEnv {
    ScopedEnv(const char* n, const QString& value)
        : name(n), old(qgetenv(n)), was(qEnvironmentVariableIsSet(n)) {
        qputenv(n, QFile::encodeName(value));
    }
    ~ScopedEnv() { was ? qputenv(name, old) : qunsetenv(name); }
    const char* name;
    QByteArray old;
    bool was;
};

// Home and the freedesktop trash point into a temporary folder. The file is first refused
// (the trash folder cannot be made: a file holds its name), then trashed into a data folder
// that does not exist yet, as on a fresh account. A refused trash must not put the file into
// the working directory either.
TEST(TrashTest, FileGoesToTheTrashOrStaysWhereItIs) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const ScopedEnv home("HOME", dir.path());
    const QString file = dir.filePath("docs/report.txt");
    WriteFile(file);
    WriteFile(dir.filePath("blocked/Trash"));
    const QString oldCwd = QDir::currentPath();
    QDir().mkpath(dir.filePath("cwd"));
    QDir::setCurrent(dir.filePath("cwd"));
    auto recycler = CoreFactory().CreateRecycler();
    {
        const ScopedEnv data("XDG_DATA_HOME", dir.filePath("blocked"));
        EXPECT_FALSE(recycler->MoveToTrash(file));
        EXPECT_TRUE(QFileInfo::exists(file));
    }
    const ScopedEnv data("XDG_DATA_HOME", dir.filePath("data"));
    EXPECT_TRUE(recycler->MoveToTrash(file));
    EXPECT_FALSE(QFileInfo::exists(file));
    EXPECT_TRUE(QFileInfo::exists(dir.filePath("data/Trash/files/report.txt")));
    EXPECT_TRUE(QDir(dir.filePath("cwd")).isEmpty());
    QDir::setCurrent(oldCwd);
}

TEST(TemporaryFileTest, EveryFileOfARootHasItsOwnPartnerInTheTemporaryFolder) {
    const QString root = QStringLiteral("/home/u/Docs");
    const QString longName(200, QLatin1Char('n'));
    const QString deep = root + "/" + longName + "/" + longName + "/" + QString(100, QChar(0x00e9));
    const QStringList files = {
        root + "/a/b.txt", root + "/a%2Fb.txt", root + "/a_b.txt", root + "/a~b.txt",
        root + "/A/b.txt", deep + "/1.txt",     deep + "/2.txt",
    };
    auto wrapper = CoreFactory().CreateFileWrapper();
    QSet<QString> temporaries;
    for (const QString& file : files) {
        wrapper->SetFileName(file);
        const QString temp = wrapper->GetTemporaryFile(root);
        EXPECT_EQ(QFileInfo(temp).path(), root + "/" + sync::core::consts::TEMP_FOLDER_NAME)
            << temp.toStdString();
        EXPECT_TRUE(temp.endsWith(".TMP")) << temp.toStdString();
        EXPECT_LE(QFileInfo(temp).fileName().toUtf8().size(), NAME_MAX) << temp.toStdString();
        EXPECT_EQ(wrapper->GetTemporaryFile(root + "/"), temp)
            << "stable for " << file.toStdString();
        temporaries.insert(temp);
    }
    EXPECT_EQ(temporaries.size(), files.size());
}

// Remove answers whether the entry is gone. A dangling link is an entry of its own although
// it "does not exist" to QFileInfo; in a folder without write permission it stays, and so must
// the answer say.
TEST(RemoveTest, TrueExactlyWhenNothingIsLeftAtThePath) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const bool root = ::geteuid() == 0;  // root writes into every folder
    const struct {
        const char* name;
        const char* path;  // below dir
        bool removed;
        bool unprivilegedOnly;
    } cases[] = {
        {"file", "open/file", true, false},
        {"missing file", "open/missing", true, false},
        {"dangling link", "open/dangling", true, false},
        {"folder", "open/folder", false, false},
        {"file in a locked folder", "locked/file", false, true},
        {"dangling link in a locked folder", "locked/dangling", false, true},
    };
    for (const char* folder : {"open", "locked"}) {
        WriteFile(dir.filePath(QString(folder) + "/file"));
        ASSERT_TRUE(
            QFile::link(dir.filePath("nowhere"), dir.filePath(QString(folder) + "/dangling")));
    }
    ASSERT_TRUE(QDir().mkpath(dir.filePath("open/folder")));
    const QByteArray locked = QFile::encodeName(dir.filePath("locked"));
    ASSERT_EQ(::chmod(locked.constData(), 0500), 0);
    auto wrapper = CoreFactory().CreateFileWrapper();
    for (const auto& c : cases) {
        if (c.unprivilegedOnly && root) continue;
        const QString path = dir.filePath(c.path);
        wrapper->SetFileName(path);
        EXPECT_EQ(wrapper->Remove(), c.removed) << c.name;
        struct stat st;
        EXPECT_EQ(::lstat(QFile::encodeName(path).constData(), &st) != 0, c.removed) << c.name;
    }
    wrapper->SetFileName(QString());
    EXPECT_FALSE(wrapper->Remove()) << "no path";
    ::chmod(locked.constData(), 0700);
}

// The engine clears its temporary folders by pattern: every file that matches, hidden or not,
// and nothing else: no folder or link that happens to match, no other letter case.
TEST(DirectoryTest, FileNamesAreTheMatchingFilesOnly) {
    QTemporaryDir tmp;
    for (const char* name : {"a.TMP", ".hidden.TMP", "b.DWN", "c.txt", "d.tmp", "sub.TMP/x.TMP"})
        WriteFile(tmp.filePath(name));
    ASSERT_TRUE(QFile::link(tmp.filePath("a.TMP"), tmp.filePath("link.TMP")));
    auto dir = CoreFactory().CreateQDirWrapper(nullptr);
    dir->SetPath(tmp.path());
    QStringList names = dir->FileNames({"*.TMP", "*.DWN"});
    names.sort();
    EXPECT_EQ(names.join(' ').toStdString(), ".hidden.TMP a.TMP b.DWN");
    dir->SetPath(tmp.filePath("missing"));
    EXPECT_TRUE(dir->FileNames({"*.TMP"}).isEmpty());
}

}  // namespace
