#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>

#include "CoreFactory.h"
#include "QDirIteratorWrapper.h"
#include "SyncException.h"

// Readable QString sets in failure messages.
void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}

using sync::core::QDirIteratorWrapper;
using sync::core::SyncException;

namespace {

void WriteFile(const QString& path, const QByteArray& content = "x") {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(content);
}

QSet<QString> Walk(const QString& root, QDir::Filters filters, QDirIterator::IteratorFlags flags) {
    QSet<QString> seen;
    auto walker = sync::factory::CoreFactory().CreateQDirIterator(root, filters, flags);
    while (walker->HasNext()) {
        seen.insert(walker->Next().mid(root.size() + 1));
    }
    return seen;
}

// root/ a.txt .hidden.txt sub/b.txt sub/.hsub/c.txt .hdir/d.txt
//       link_to_sub -> sub   link_to_a -> a.txt   loop -> .
class WalkerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.isValid());
        root = QFileInfo(_dir.path()).canonicalFilePath();
        for (const char* f :
             {"a.txt", ".hidden.txt", "sub/b.txt", "sub/.hsub/c.txt", ".hdir/d.txt"})
            WriteFile(root + "/" + f);
        ASSERT_TRUE(QFile::link(root + "/sub", root + "/link_to_sub"));
        ASSERT_TRUE(QFile::link(root + "/a.txt", root + "/link_to_a"));
        ASSERT_TRUE(QFile::link(root, root + "/loop"));
    }

    QTemporaryDir _dir;
    QString root;
};

struct FilterCase {
    const char* name;
    QDir::Filters filters;
    QDirIterator::IteratorFlags flags;
    QStringList expected;
};

TEST_F(WalkerTest, ReportsExactlyWhatTheFiltersAndFlagsAsk) {
    const auto none = QDirIterator::NoIteratorFlags;
    const auto rec = QDirIterator::Subdirectories;
    const QDir::Filters tree = QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot;
    const FilterCase cases[] = {
        {"root files, no links", QDir::Files | QDir::NoSymLinks, none, {"a.txt"}},
        {"root files with hidden",
         QDir::Files | QDir::NoSymLinks | QDir::Hidden,
         none,
         {"a.txt", ".hidden.txt"}},
        {"tree, no links", tree | QDir::NoSymLinks, rec, {"a.txt", "sub", "sub/b.txt"}},
        {"tree with hidden",
         tree | QDir::NoSymLinks | QDir::Hidden,
         rec,
         {"a.txt", ".hidden.txt", "sub", "sub/b.txt", "sub/.hsub", "sub/.hsub/c.txt", ".hdir",
          ".hdir/d.txt"}},
        // Links are entries, never walked into: nothing below link_to_sub or loop.
        {"tree with links",
         tree,
         rec,
         {"a.txt", "sub", "sub/b.txt", "link_to_sub", "link_to_a", "loop"}},
        {"follow flag ignored",
         tree,
         rec | QDirIterator::FollowSymlinks,
         {"a.txt", "sub", "sub/b.txt", "link_to_sub", "link_to_a", "loop"}},
        {"files only still descends", QDir::Files | QDir::NoSymLinks, rec, {"a.txt", "sub/b.txt"}},
        {"folders only", QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot, rec, {"sub"}},
        {"dot entries kept", QDir::Dirs | QDir::NoSymLinks, none, {".", "..", "sub"}},
    };
    for (const FilterCase& c : cases) {
        const QStringList e = c.expected;
        EXPECT_EQ(Walk(root, c.filters, c.flags), QSet<QString>(e.begin(), e.end())) << c.name;
    }
}

class UnreadableTest : public WalkerTest {
protected:
    void SetUp() override {
        if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder whatever its permissions";
        WalkerTest::SetUp();
    }
    void TearDown() override {
        // Let QTemporaryDir clean up.
        for (const QString& d : _locked) ::chmod(QFile::encodeName(d).constData(), 0700);
    }
    QString Lock(const QString& relative, mode_t mode = 0) {
        const QString path = root + "/" + relative;
        QDir().mkpath(path);
        _locked.append(path);
        EXPECT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0);
        return path;
    }
    QStringList _locked;
};

TEST_F(UnreadableTest, FolderBelowTheStartFailsTheWalkAndIsNamed) {
    WriteFile(root + "/sub/deep/e.txt");
    const struct {
        const char* name;
        const char* folder;
        mode_t mode;
        QDir::Filters filters;
    } cases[] = {
        {"no permission", "sub/deep", 0, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot},
        // QDirIterator still descends when folders are not listed: the silent case.
        {"files-only walk", "sub/deep", 0, QDir::Files},
        {"readable but not searchable", "sub/deep", 0400, QDir::Files},
        {"empty folder", "sub/empty", 0, QDir::Files},
    };
    for (const auto& c : cases) {
        const QString locked = Lock(c.folder, c.mode);
        try {
            Walk(root, c.filters, QDirIterator::Subdirectories);
            ADD_FAILURE() << c.name << ": walk went on past " << c.folder;
        } catch (const SyncException& e) {
            EXPECT_TRUE(e.message.contains(locked)) << c.name << ": " << e.what();
        }
        ::chmod(QFile::encodeName(locked).constData(), 0700);
    }
}

TEST_F(UnreadableTest, FolderNotEnteredDoesNotFail) {
    Lock("sub");
    EXPECT_EQ(Walk(root, QDir::Files | QDir::NoSymLinks, QDirIterator::NoIteratorFlags),
              QSet<QString>{"a.txt"});
    // Hidden folders are not entered without QDir::Hidden.
    ::chmod(QFile::encodeName(root + "/sub").constData(), 0700);
    Lock(".hdir");
    EXPECT_NO_THROW(Walk(root, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories));
}

TEST_F(UnreadableTest, UnreadableOrMissingStartThrows) {
    EXPECT_THROW(QDirIteratorWrapper(Lock("sub"), QDir::Files, QDirIterator::Subdirectories),
                 SyncException);
    EXPECT_THROW(QDirIteratorWrapper(root + "/missing", QDir::Files, QDirIterator::Subdirectories),
                 SyncException);
}

}  // namespace
