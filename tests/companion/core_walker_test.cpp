#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "CoreFactory.h"
#include "SyncException.h"

using sync::core::SyncException;

namespace {

void WriteFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
}

std::string Sorted(QStringList names) {
    names.sort();
    return names.join(' ').toStdString();
}

// The entries reported, relative to root, sorted and separated by spaces.
std::string Walk(const QString& root, QDir::Filters filters, QDirIterator::IteratorFlags flags) {
    QStringList seen;
    auto walker = sync::factory::CoreFactory().CreateQDirIterator(root, filters, flags);
    while (walker->HasNext()) seen << walker->Next().mid(root.size() + 1);
    return Sorted(seen);
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

TEST_F(WalkerTest, ReportsExactlyWhatTheFiltersAndFlagsAsk) {
    const auto none = QDirIterator::NoIteratorFlags;
    const auto rec = QDirIterator::Subdirectories;
    const QDir::Filters files = QDir::Files | QDir::NoSymLinks;
    const QDir::Filters tree = QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot;
    const struct {
        const char* name;
        QDir::Filters filters;
        QDirIterator::IteratorFlags flags;
        const char* expected;
    } cases[] = {
        {"root files, no links", files, none, "a.txt"},
        {"root files with hidden", files | QDir::Hidden, none, "a.txt .hidden.txt"},
        {"tree, no links", tree | QDir::NoSymLinks, rec, "a.txt sub sub/b.txt"},
        {"tree with hidden", tree | QDir::NoSymLinks | QDir::Hidden, rec,
         "a.txt .hidden.txt sub sub/b.txt sub/.hsub sub/.hsub/c.txt .hdir .hdir/d.txt"},
        // Links are entries, never walked into: nothing below link_to_sub or loop.
        {"tree with links", tree, rec, "a.txt sub sub/b.txt link_to_sub link_to_a loop"},
        {"follow flag ignored", tree, rec | QDirIterator::FollowSymlinks,
         "a.txt sub sub/b.txt link_to_sub link_to_a loop"},
        {"files only still descends", files, rec, "a.txt sub/b.txt"},
        {"folders only", QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot, rec, "sub"},
        {"dot entries kept", QDir::Dirs | QDir::NoSymLinks, none, ". .. sub"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Walk(root, c.filters, c.flags), Sorted(QString(c.expected).split(' '))) << c.name;
}

// An unreadable folder fails the walk wherever the walk would go, named in the error.
TEST_F(WalkerTest, UnreadableFolderFailsTheWalkWhereTheWalkGoes) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder whatever its permissions";
    WriteFile(root + "/sub/deep/e.txt");
    const auto rec = QDirIterator::Subdirectories;
    const QDir::Filters tree = QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot;
    const struct {
        const char* name;
        const char* start;   // below root
        const char* locked;  // below root; nullptr: nothing locked
        mode_t mode;
        QDir::Filters filters;
        QDirIterator::IteratorFlags flags;
        const char* failsAt;  // below root; nullptr: the walk succeeds
    } cases[] = {
        {"no permission", "", "/sub/deep", 0, tree, rec, "/sub/deep"},
        // QDirIterator still descends when folders are not listed: the silent case.
        {"files-only walk", "", "/sub/deep", 0, QDir::Files, rec, "/sub/deep"},
        {"readable but not searchable", "", "/sub/deep", 0400, QDir::Files, rec, "/sub/deep"},
        {"empty folder", "", "/sub/empty", 0, QDir::Files, rec, "/sub/empty"},
        {"unreadable start", "/sub", "/sub", 0, QDir::Files, rec, "/sub"},
        {"missing start", "/missing", nullptr, 0, QDir::Files, rec, "/missing"},
        {"not descending", "", "/sub", 0, QDir::Files | QDir::NoSymLinks, {}, nullptr},
        // Hidden folders are not entered without QDir::Hidden.
        {"hidden folder", "", "/.hdir", 0, QDir::Files | QDir::NoSymLinks, rec, nullptr},
    };
    for (const auto& c : cases) {
        const QByteArray locked = c.locked ? QFile::encodeName(root + c.locked) : QByteArray();
        if (c.locked) {
            QDir().mkpath(root + c.locked);
            EXPECT_EQ(::chmod(locked.constData(), c.mode), 0) << c.name;
        }
        try {
            Walk(root + c.start, c.filters, c.flags);
            EXPECT_FALSE(c.failsAt) << c.name << ": the walk went on";
        } catch (const SyncException& e) {
            EXPECT_TRUE(c.failsAt && e.message.contains(root + c.failsAt))
                << c.name << ": " << e.what();
        }
        if (c.locked) ::chmod(locked.constData(), 0700);
    }
}

}  // namespace
