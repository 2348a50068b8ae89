#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>
#include <QUuid>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "CoreFactory.h"
#include "Finally.h"
#include "SyncException.h"

using sync::core::SyncException;

namespace {

void WriteFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
}

// Creates an empty file by its native name, which QFile cannot hold when it is not UTF-8.
bool Touch(const QByteArray& path) {
    const int fd = ::open(path.constData(), O_CREAT | O_WRONLY, 0600);
    return fd >= 0 && ::close(fd) == 0;
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
        {"unreadable start", "/sub", "/sub", 0, QDir::Files, rec, "/sub"},
        {"missing start", "/missing", nullptr, 0, QDir::Files, rec, "/missing"},
        {"not descending", "", "/sub", 0, QDir::Files | QDir::NoSymLinks, {}, nullptr},
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

// What the engine reads of each entry is what QFileInfo reads from the disk.
TEST_F(WalkerTest, EntriesCarryTypeSizeAndTimeOfTheDisk) {
    QFile a(root + "/a.txt");
    ASSERT_TRUE(a.open(QIODevice::WriteOnly));
    ASSERT_EQ(a.write("twelve bytes"), 12);
    a.close();
    const QDir::Filters tree = QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden;
    auto walker =
        sync::factory::CoreFactory().CreateQDirIterator(root, tree, QDirIterator::Subdirectories);
    int seen = 0;
    while (walker->HasNext()) {
        const QString path = walker->Next();
        const auto info = walker->FileInfo();
        const QFileInfo disk(path);
        const std::string name = path.toStdString();
        ++seen;
        EXPECT_EQ(info->AbsoluteFilePath(), disk.absoluteFilePath()) << name;
        EXPECT_EQ(info->FileName(), disk.fileName()) << name;
        EXPECT_EQ(info->IsFile(), disk.isFile()) << name;
        EXPECT_EQ(info->IsDir(), disk.isDir()) << name;
        EXPECT_EQ(info->IsSymLink(), disk.isSymLink()) << name;
        EXPECT_EQ(info->IsHidden(), disk.isHidden()) << name;
        EXPECT_EQ(info->Size(), disk.isDir() ? 0 : disk.size()) << name;
        EXPECT_EQ(info->LastModified(), disk.lastModified()) << name;
        EXPECT_EQ(info->UndecodableName(), QString()) << name;
    }
    EXPECT_EQ(seen, 11);
}

// Linux names are bytes. One that is not UTF-8 cannot become a QString and back, so the entry
// is reported with the name escaped, and such a folder is not entered.
TEST_F(WalkerTest, NamesThatAreNotUtf8AreReportedOnceEscapedAndNeverEntered) {
    const QString start = root + "/names";
    const QByteArray native = QFile::encodeName(start);
    ASSERT_EQ(::mkdir(native.constData(), 0700), 0);
    const struct {
        const char* bytes;
        bool folder;
        const char* escaped;  // empty: the name is UTF-8 and must come back unchanged
    } cases[] = {
        {"bad\xff.txt", false, "bad\\xff.txt"},
        {"dir\xfe", true, "dir\\xfe"},
        {"cut\xe2\x82", true, "cut\\xe2\\x82"},
        {"caf\xc3\xa9\xff", false, "caf\xc3\xa9\\xff"},
        {"\xc0\xafoverlong", false, "\\xc0\\xafoverlong"},
        {"surrogate\xed\xa0\x80", false, "surrogate\\xed\\xa0\\x80"},
        {"beyond\xf4\x90\x80\x80", false, "beyond\\xf4\\x90\\x80\\x80"},
        {"caf\xc3\xa9.txt", false, ""},
        {"\xef\xbb\xbf"
         "bom.txt",
         false, ""},
        {"\xf0\x9f\x98\x80", true, ""},
    };
    // QDir cannot name these entries either, so the temporary folder could not remove them.
    const sync::core::Finally cleanUp([&] {
        for (const auto& c : cases) {
            const QByteArray path = native + "/" + c.bytes;
            ::unlink((path + "/inner.txt").constData());
            c.folder ? ::rmdir(path.constData()) : ::unlink(path.constData());
        }
    });
    // A UTF-8 name must come back as the same bytes (shown in hex); an escaped one with a lossy
    // path; a folder also with its inner file when it is entered.
    const auto hex = [](const QByteArray& bytes) { return QString::fromLatin1(bytes.toHex()); };
    QStringList expected;
    for (const auto& c : cases) {
        const QByteArray path = native + "/" + c.bytes;
        ASSERT_TRUE(c.folder ? ::mkdir(path.constData(), 0700) == 0 : Touch(path)) << c.bytes;
        ASSERT_TRUE(!c.folder || Touch(path + "/inner.txt")) << c.bytes;
        const QString type = c.folder ? "/" : "";
        if (*c.escaped) {
            expected << QString::fromUtf8(c.escaped) + " at " + QString::fromUtf8(c.bytes) + type;
        } else {
            expected << hex(c.bytes) + type;
            if (c.folder) expected << hex(c.bytes + QByteArray("/inner.txt"));
        }
    }
    QStringList seen;
    auto walker = sync::factory::CoreFactory().CreateQDirIterator(
        start, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks,
        QDirIterator::Subdirectories);
    while (walker->HasNext()) {
        walker->Next();
        const auto info = walker->FileInfo();
        const QString type = info->IsDir() ? "/" : info->IsFile() ? "" : " (no type)";
        const QString path = info->AbsoluteFilePath();
        seen << (info->UndecodableName().isEmpty()
                     ? hex(QFile::encodeName(path).mid(native.size() + 1))
                     : info->UndecodableName() + " at " + path.mid(start.size() + 1)) +
                    type;
    }
    EXPECT_EQ(Sorted(seen), Sorted(expected));
}

// Another program removes or replaces a folder after the walk reported it and before the walk
// enters it (a folder is entered only after its parent's listing): the folder's content is
// simply absent, as after any deletion.
TEST_F(WalkerTest, FolderThatGoesAwayBeforeItIsEnteredIsAbsent) {
    QTemporaryDir elsewhere;
    WriteFile(elsewhere.filePath("outside/secret.txt"));
    const struct {
        const char* name;
        std::function<void(const QString& folder)> change;
    } cases[] = {
        {"removed", [](const QString& folder) { ASSERT_TRUE(QDir(folder).removeRecursively()); }},
        {"renamed away",
         [&](const QString& folder) {
             ASSERT_TRUE(QDir().rename(folder, elsewhere.filePath(QUuid::createUuid().toString())));
         }},
        {"replaced by a file",
         [](const QString& folder) {
             ASSERT_TRUE(QDir(folder).removeRecursively());
             WriteFile(folder);
         }},
        {"replaced by a link to a folder",
         [&](const QString& folder) {
             ASSERT_TRUE(QDir(folder).removeRecursively());
             ASSERT_TRUE(QFile::link(elsewhere.filePath("outside"), folder));
         }},
    };
    for (const auto& c : cases) {
        const QString start = root + "/" + QString::fromLatin1(c.name).replace(' ', '_');
        WriteFile(start + "/keep.txt");
        WriteFile(start + "/victim/inner.txt");
        WriteFile(start + "/victim/deeper/inner.txt");
        QStringList seen;
        try {
            auto walker = sync::factory::CoreFactory().CreateQDirIterator(
                start, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks,
                QDirIterator::Subdirectories);
            while (walker->HasNext()) {
                const QString path = walker->Next();
                seen << path.mid(start.size() + 1);
                if (seen.last() == "victim") c.change(path);
            }
        } catch (const SyncException& e) {
            ADD_FAILURE() << c.name << ": " << e.what();
        }
        EXPECT_EQ(Sorted(seen), "keep.txt victim") << c.name;
    }
}

// Trees of thousands of entries, made and removed through folder handles so that paths beyond
// PATH_MAX are no obstacle, and listed by the test on its own to check the walk against.
class BigTreeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.isValid());
        root = QFileInfo(_dir.path()).canonicalFilePath();
        rootFd = ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY);
        ASSERT_GE(rootFd, 0);
    }
    void TearDown() override {
        Empty(rootFd);
        ::close(rootFd);
    }

    // Makes the folder name in the folder fd; returns it open.
    static int MakeFolder(int fd, const QByteArray& name) {
        EXPECT_EQ(::mkdirat(fd, name.constData(), 0700), 0) << name.constData();
        return ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY);
    }
    // Files f0, f1, ... in the folder fd, of 0 to 6 bytes.
    static void MakeFiles(int fd, int count) {
        for (int i = 0; i < count; ++i) {
            const int file = ::openat(fd, "f" + QByteArray::number(i), O_CREAT | O_WRONLY, 0600);
            EXPECT_EQ(::write(file, "abcdef", size_t(i % 7)), i % 7);
            ::close(file);
        }
    }
    // folders folders of files files each, below the root, and files files in it.
    void MakeFolders(int folders, int files) {
        MakeFiles(rootFd, files);
        for (int i = 0; i < folders; ++i) {
            const int fd = MakeFolder(rootFd, "d" + QByteArray::number(i));
            MakeFiles(fd, files);
            ::close(fd);
        }
    }
    // Calls visit with each entry below the folder fd, a folder after its content.
    static void Visit(int fd, const QString& prefix,
                      const std::function<void(int, const char*, const QString&, bool)>& visit) {
        DIR* dir = ::fdopendir(::openat(fd, ".", O_RDONLY | O_DIRECTORY));
        ASSERT_TRUE(dir);
        QList<QPair<QByteArray, bool>> entries;  // name, whether a folder
        while (const struct dirent* e = ::readdir(dir))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                entries.append({e->d_name, e->d_type == DT_DIR});
        for (const auto& entry : entries) {
            const QString path = prefix + "/" + QString::fromUtf8(entry.first);
            if (entry.second) {
                const int sub = ::openat(fd, entry.first.constData(), O_RDONLY | O_DIRECTORY);
                Visit(sub, path, visit);
                ::close(sub);
            }
            visit(fd, entry.first.constData(), path, entry.second);
        }
        ::closedir(dir);
    }
    static void Empty(int fd) {
        Visit(fd, QString(), [](int parent, const char* name, const QString&, bool folder) {
            ::unlinkat(parent, name, folder ? AT_REMOVEDIR : 0);
        });
    }
    // "path/" for a folder, "path size" for anything else, below the root.
    static QString Described(const QString& path, bool folder, qint64 size) {
        return folder ? path + "/" : path + " " + QString::number(size);
    }
    QStringList ListedByTheTest() const {
        QStringList listed;
        Visit(rootFd, QString(), [&](int parent, const char* name, const QString& path, bool dir) {
            struct stat st;
            EXPECT_EQ(::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW), 0) << name;
            listed << Described(path, dir, st.st_size);
        });
        return listed;
    }
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> Walker() const {
        return sync::factory::CoreFactory().CreateQDirIterator(
            root, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks,
            QDirIterator::Subdirectories);
    }

    QTemporaryDir _dir;
    QString root;
    int rootFd = -1;
};

// Read ahead in batches, the walk must still give every entry once, as the disk has it, a
// folder before its content and each folder's content in one run.
TEST_F(BigTreeTest, LongWalkReportsEveryEntryOnceInWalkOrder) {
    const struct {
        const char* name;
        std::function<void(int rootFd)> make;
    } cases[] = {
        {"wide flat folder", [](int fd) { MakeFiles(fd, 2000); }},
        // 120 names of 40 bytes: the deeper folders are opened name by name.
        {"deep chain beyond PATH_MAX",
         [](int fd) {
             for (int level = 0; level < 120; ++level) {
                 const int sub = MakeFolder(fd, QByteArray(38, 'c') + QByteArray::number(level));
                 MakeFiles(sub, 6);
                 if (level > 0) ::close(fd);
                 fd = sub;
             }
             ::close(fd);
         }},
        {"many small folders",
         [](int fd) {
             for (int i = 0; i < 15; ++i) {
                 const int a = MakeFolder(fd, "a" + QByteArray::number(i));
                 MakeFiles(a, 3);
                 for (int j = 0; j < 10; ++j) {
                     const int b = MakeFolder(a, "b" + QByteArray::number(j));
                     MakeFiles(b, 4);
                     ::close(b);
                 }
                 ::close(a);
             }
         }},
    };
    for (const auto& c : cases) {
        c.make(rootFd);
        QStringList expected = ListedByTheTest();
        QStringList seen;
        QSet<QString> folders{QString()};  // reported so far, the root as ""
        QSet<QString> listedAlready;       // folders whose run of entries has ended
        QString listing;                   // the folder of the entry before
        int folderAfterContent = 0;
        int runsSplit = 0;
        auto walker = Walker();
        while (walker->HasNext()) {
            const QString path = walker->Next();
            const auto info = walker->FileInfo();
            const QString relative = path.mid(root.size());
            const QString folder = relative.section('/', 0, -2);
            seen << Described(relative, info->IsDir(), info->Size());
            EXPECT_EQ(info->AbsoluteFilePath(), path) << c.name;
            if (info->IsDir()) folders.insert(relative);
            if (!folders.contains(folder)) ++folderAfterContent;
            if (folder != listing) {
                if (listedAlready.contains(folder)) ++runsSplit;
                listedAlready.insert(listing);
                listing = folder;
            }
        }
        EXPECT_GT(expected.size(), 700) << c.name;
        EXPECT_EQ(folderAfterContent, 0) << c.name;
        EXPECT_EQ(runsSplit, 0) << c.name;
        expected.sort();
        seen.sort();
        EXPECT_EQ(seen.size(), expected.size()) << c.name;
        for (int i = 0; i < std::min(seen.size(), expected.size()); ++i) {
            if (seen[i] == expected[i]) continue;
            ADD_FAILURE() << c.name << ": walked " << seen[i].toStdString() << ", listed "
                          << expected[i].toStdString();
            break;
        }
        Empty(rootFd);
    }
}

// The walk read ahead must not deliver the error of a folder before the entries that come
// before it in the walk, nor any entry after it.
TEST_F(BigTreeTest, UnreadableFolderFarIntoTheWalkFailsItAfterEveryEntryBefore) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder whatever its permissions";
    MakeFolders(40, 30);
    QStringList whole;
    for (auto walker = Walker(); walker->HasNext();) whole << walker->Next();
    // The first folder whose listing starts past the middle of the walk.
    int entered = whole.size() / 2;
    const auto folderOf = [&](int i) { return whole[i].section('/', 0, -2); };
    while (entered < whole.size() &&
           (folderOf(entered) == folderOf(entered - 1) || folderOf(entered) == root))
        ++entered;
    ASSERT_LT(entered, whole.size());
    const QString locked = folderOf(entered);
    ASSERT_EQ(::chmod(QFile::encodeName(locked).constData(), 0), 0);
    const sync::core::Finally unlock([&] { ::chmod(QFile::encodeName(locked).constData(), 0700); });

    QStringList seen;
    try {
        for (auto walker = Walker(); walker->HasNext();) seen << walker->Next();
        ADD_FAILURE() << "the walk went on past " << locked.toStdString();
    } catch (const SyncException& e) {
        EXPECT_TRUE(e.message.contains(locked)) << e.what();
    }
    EXPECT_EQ(seen.size(), entered);
    EXPECT_TRUE(seen == whole.mid(0, entered)) << "not the entries before the error";
}

// The caller may stop at any point of a long walk (an exit request, an error of its own):
// destroying the walker must end its reading, whether reading ahead has not begun, runs,
// waits for room or has ended.
TEST_F(BigTreeTest, WalkerDestroyedPartWayThroughEndsItsReading) {
    MakeFolders(10, 200);
    for (const int taken : {0, 10, 300, 1000, 1900, -1}) {
        auto walker = Walker();
        for (int i = 0; (taken < 0 || i < taken) && walker->HasNext(); ++i) walker->Next();
        // Time for a reader to fill what it may hold and wait for room.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        auto done = std::make_shared<std::promise<void>>();
        auto destroyed = done->get_future();
        // A walker that never lets go is left behind on its thread, failing the case.
        std::thread([walker = std::move(walker), done]() mutable {
            walker.reset();
            done->set_value();
        }).detach();
        EXPECT_EQ(destroyed.wait_for(std::chrono::minutes(1)), std::future_status::ready)
            << "after " << taken << " entries";
    }
}

}  // namespace
