#include <gtest/gtest.h>

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

}  // namespace
