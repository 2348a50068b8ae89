#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <climits>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>

#include "CoreFactory.h"
#include "PathHelpers.h"
#include "SyncConsts.h"

using sync::factory::CoreFactory;

namespace {

void WriteFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("x");
}

// Points the freedesktop trash (and home) into a temporary folder for the test's lifetime.
class TrashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.isValid());
        _oldHome = qgetenv("HOME");
        _oldData = qgetenv("XDG_DATA_HOME");
        qputenv("HOME", QFile::encodeName(_dir.path()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(_dir.filePath("data")));
        // A failed trash must not leave anything in the working directory either.
        _oldCwd = QDir::currentPath();
        QDir().mkpath(_dir.filePath("cwd"));
        QDir::setCurrent(_dir.filePath("cwd"));
    }
    void TearDown() override {
        EXPECT_TRUE(QDir(_dir.filePath("cwd")).isEmpty());
        QDir::setCurrent(_oldCwd);
        qputenv("HOME", _oldHome);
        if (_oldData.isNull())
            qunsetenv("XDG_DATA_HOME");
        else
            qputenv("XDG_DATA_HOME", _oldData);
    }
    QTemporaryDir _dir;
    QByteArray _oldHome, _oldData;
    QString _oldCwd;
};

// The data folder does not exist yet, as on a fresh account.
TEST_F(TrashTest, FileGoesToTheTrashNotAway) {
    const QString file = _dir.filePath("docs/report.txt");
    WriteFile(file);
    EXPECT_TRUE(CoreFactory().CreateRecycler()->MoveToTrash(file));
    EXPECT_FALSE(QFileInfo::exists(file));
    EXPECT_TRUE(QFileInfo::exists(_dir.filePath("data/Trash/files/report.txt")));
    EXPECT_TRUE(QFileInfo::exists(_dir.filePath("data/Trash/info/report.txt.trashinfo")));
}

TEST_F(TrashTest, FileThatCannotBeTrashedStays) {
    const QString file = _dir.filePath("docs/report.txt");
    WriteFile(file);
    // The trash folder cannot be made: a file holds its name.
    WriteFile(_dir.filePath("data/Trash"));
    auto recycler = CoreFactory().CreateRecycler();
    EXPECT_FALSE(recycler->MoveToTrash(file));
    EXPECT_TRUE(QFileInfo::exists(file));
    EXPECT_FALSE(recycler->MoveToTrash(_dir.filePath("docs/missing.txt")));
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

TEST(FileWrapperTest, RemoveAnswersWhetherTheFileIsGone) {
    QTemporaryDir dir;
    const QString file = dir.filePath("f.txt");
    WriteFile(file);
    auto wrapper = CoreFactory().CreateFileWrapper();
    wrapper->SetFileName(file);
    EXPECT_TRUE(wrapper->Exists());
    EXPECT_TRUE(wrapper->Remove());
    EXPECT_FALSE(wrapper->Exists());
    EXPECT_TRUE(wrapper->Remove()) << "already gone";
    if (::geteuid() == 0) GTEST_SKIP() << "root removes files from read-only folders";
    WriteFile(file);
    ASSERT_EQ(::chmod(QFile::encodeName(dir.path()).constData(), 0500), 0);
    EXPECT_FALSE(wrapper->Remove());
    ::chmod(QFile::encodeName(dir.path()).constData(), 0700);
}

TEST(FileLockTest, WriteLockHeldByAnotherProcessIsSeen) {
    QTemporaryDir dir;
    const QString file = dir.filePath("locked.txt");
    WriteFile(file);
    const QByteArray native = QFile::encodeName(file);
    int ready[2], release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        ::close(release[1]);
        ::alarm(30);  // never outlive a parent that failed
        const int fd = ::open(native.constData(), O_RDWR);
        const char ok = (fd >= 0 && ::flock(fd, LOCK_EX) == 0) ? 'y' : 'n';
        (void)!::write(ready[1], &ok, 1);
        char c;
        (void)!::read(release[0], &c, 1);  // until the parent closes its end
        ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');
    EXPECT_TRUE(sync::core::IsFileLockedForWrite(file));
    ::close(release[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(ready[0]);
    EXPECT_FALSE(sync::core::IsFileLockedForWrite(file));
}

}  // namespace
