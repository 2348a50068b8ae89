#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "SyncConsts.h"
#include "SyncException.h"

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::consts::LOCAL_FILE_MAX_PATH;
using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
using sync::syncService::LocalEntryInfoTreeRetriever;

namespace {

void WriteFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
    f.write("hello");
}

// Sorted keys, joined by spaces, "/docs/" left out.
QString Keys(QStringList keys) {
    keys.sort();
    return keys.join(' ').remove("/docs/");
}
template <typename Map>
QString Keys(const Map& map) {
    return Keys(QStringList(map.keys()));  // a QList<QString> under Qt 5
}

// Lists the entries it is given, with no need for them to exist.
class ListedWalker : public sync::interf::IQDirIteratorWrapper,
                     public sync::interf::IQFileInfoWrapper {
public:
    struct Entry {
        Entry(QString p = {}, bool d = false, QString u = {}) : path(p), dir(d), undecodable(u) {}
        QString path;
        bool dir;
        QString undecodable;  // the name's bytes, escaped, when they are not valid UTF-8
    };
    explicit ListedWalker(QList<Entry> entries) : _entries(std::move(entries)) {}
    std::shared_ptr<sync::interf::IQFileInfoWrapper> FileInfo() override {
        return std::shared_ptr<sync::interf::IQFileInfoWrapper>(this, [](auto*) {});
    }
    bool HasNext() override { return !_entries.isEmpty(); }
    QString Next() override { return (_current = _entries.takeFirst()).path; }
    QString AbsoluteFilePath() override { return _current.path; }
    QString FileName() override { return _current.path.section('/', -1); }
    qint64 Size() override { return 1; }
    QDateTime LastModified() override { return QDateTime(QDate(2024, 5, 1), QTime(12, 0)); }
    bool IsFile() override { return !_current.dir; }
    bool IsDir() override { return _current.dir; }
    bool IsSymLink() override { return false; }
    bool IsHidden() override { return false; }
    bool Exists() override { return true; }
    QString UndecodableName() override { return _current.undecodable; }

private:
    QList<Entry> _entries;
    Entry _current;
};

// The fake core, whose walk a test can replace.
class WalkerCore : public FakeCore {
public:
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> CreateQDirIterator(
        const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) override {
        return walker ? walker : FakeCore::CreateQDirIterator(path, filters, flags);
    }
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> walker;
};

class LocalTreeRetrieverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(QDir().mkpath(rootPath));
        root.id = root.rootId = 1;
        root.localPath = rootPath;
        root.serverPath = "/Docs";
        root.syncScope = 0;
        auto into = [](QStringList& list) { return [&list](const QString& p) { list << p; }; };
        QObject::connect(&retriever, &LocalEntryInfoTreeRetriever::FileFilteredOut,
                         into(fileSignals));
        QObject::connect(&retriever, &LocalEntryInfoTreeRetriever::FolderFilteredOut,
                         into(folderSignals));
        QObject::connect(&retriever, &LocalEntryInfoTreeRetriever::SubFolderNameNotAllowed,
                         into(notAllowedSignals));
    }

    QString At(const QString& below) const { return rootPath + '/' + below; }
    // Sorted, joined by spaces, the root's path left out.
    QString Below(QStringList paths) const {
        paths.sort();
        return paths.join(' ').remove(rootPath + '/');
    }

    // A generated file's record, as the engine keeps one for a file it made from another.
    int AddGenerated(const QString& below, int parentFileId) {
        FileConfiguration g;
        g.rootId = root.id;
        g.isGenerated = 1;
        g.localPath = At(below);
        g.serverPath = "/Docs/" + below;
        g.parentFileId = parentFileId;
        store->AddFile(g);
        return g.id;
    }
    QList<int> GeneratedIds() {
        QList<int> ids;
        for (const FileConfiguration& f : store->GetGeneratedFilesByRootId(root.id)) ids << f.id;
        return ids;
    }

    QTemporaryDir tmp;
    const QString rootPath = tmp.filePath("Docs");
    FolderConfiguration root;
    std::shared_ptr<FakeConfigStore> store = std::make_shared<FakeConfigStore>();
    std::shared_ptr<ListSyncFilter> filter = std::make_shared<ListSyncFilter>();
    std::shared_ptr<WalkerCore> core = std::make_shared<WalkerCore>();
    LocalEntryInfoTreeRetriever retriever{nullptr, store, core, filter, filter};
    QStringList fileSignals, folderSignals, notAllowedSignals;
};

// What the walk leaves out by a rule is named, so that planning leaves it alone. Names that
// differ only in letter case share a key: both are left out, and the user is told why.
TEST_F(LocalTreeRetrieverTest, WalksWhatTheScopeSelectsAndNamesWhatItLeavesOut) {
    for (const char* below :
         {"a.txt", ".hidden.txt", "Sub/b.txt", "Sub/Deep/c.txt", ".hiddenDir/d.txt",
          "Private/p.txt", "skip.tmp", "Sub/Notes.txt", "Sub/notes.txt", "Pics/a.jpg", "pics/b.jpg",
          // The engine's own folders, in whatever letter case the disk has.
          ".{syncTEMP}/t.txt", "Sub/.{SYNCBACKUP}/x.BASE",
          // Near misses of their names are the user's.
          "Sub/{SyncTemp}.txt", "Sub/x.{SyncBackup"})
        WriteFile(At(below));
    // Links are never followed, so a loop cannot trap the walk, and never listed.
    ASSERT_TRUE(QFile::link(rootPath, At("Sub/loop")));
    ASSERT_TRUE(QFile::link(At("a.txt"), At("link.txt")));
    filter->excluded = QStringList{"/skip.tmp", "/Private"};
    const char* const kWholeTreeFiles =
        "a.txt pics/a.jpg pics/b.jpg private/p.txt sub/b.txt "
        "sub/deep/c.txt sub/x.{syncbackup sub/{synctemp}.txt";
    const struct {
        const char* name;
        int syncScope;
        bool hidden;
        QString files;
        const char *folders, *excludedFiles, *excludedFolders, *filtered;
    } rows[] = {
        {"WholeTree", 0, false, kWholeTreeFiles, "/docs sub sub/deep", "skip.tmp sub/notes.txt",
         "pics private", "3 local file(s) and 3"},
        {"WholeTreeWithHidden", 0, true, QString(".hidden.txt .hiddendir/d.txt ") + kWholeTreeFiles,
         "/docs .hiddendir sub sub/deep", "skip.tmp sub/notes.txt", "pics private",
         "3 local file(s) and 3"},
        {"RootOnly", 1, false, "a.txt", "/docs", "skip.tmp", "", "1 local file(s) and 0"},
        {"RootOnlyWithHidden", 1, true, ".hidden.txt a.txt", "/docs", "skip.tmp", "",
         "1 local file(s) and 0"},
        {"NothingForOtherScopes", 2, true, "", "/docs", "", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        root.syncScope = row.syncScope;
        root.setSyncOption(row.hidden ? sync::config::SyncHiddenEntries : 0);
        fileSignals.clear();
        folderSignals.clear();
        notAllowedSignals.clear();
        LogCapture log;
        auto tree = retriever.GetEntryInfoTree(root);

        EXPECT_EQ(row.files, Keys(tree->fileMap));
        EXPECT_EQ(row.folders, Keys(tree->folderMap));
        EXPECT_EQ(row.excludedFiles, Keys(QStringList(tree->excludedFileKeys.values())));
        EXPECT_EQ(row.excludedFolders, Keys(QStringList(tree->excludedFolderKeys.values())));
        EXPECT_EQ(tree->hiddenEntriesExcluded, !row.hidden);
        EXPECT_FALSE(filter->sides.contains(true));
        // The engine's folders are skipped silently, not counted as filtered.
        EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL),
                  *row.filtered
                      ? QStringList{QString("Filtered out %1 folder(s)").arg(row.filtered)}
                      : QStringList());
        const bool whole = row.syncScope == 0;
        EXPECT_EQ(Below(fileSignals), whole                ? "Sub/Notes.txt Sub/notes.txt skip.tmp"
                                      : row.syncScope == 1 ? "skip.tmp"
                                                           : "");
        EXPECT_EQ(Below(folderSignals), whole ? "Pics pics" : "");
        EXPECT_EQ(Below(notAllowedSignals), whole ? "Private" : "");
        const QStringList warnings = log.Messages(log4cplus::WARN_LOG_LEVEL);
        EXPECT_EQ(warnings.size(), whole ? 2 : 0);
        for (const QString& w : warnings) {
            EXPECT_TRUE(w.contains("their names differ only in letter case")) << w.toStdString();
            EXPECT_TRUE((w.contains(At("Sub/Notes.txt")) && w.contains(At("Sub/notes.txt"))) ||
                        (w.contains(At("Pics")) && w.contains(At("pics"))))
                << w.toStdString();
        }
    }
}

// Server paths get exactly one "/" at the seam, whatever either side ends or starts with.
TEST_F(LocalTreeRetrieverTest, RecordsCarryTheDiskAndTheRootValues) {
    WriteFile(At("Sub/Report.TXT"));
    root.rootId = 5;
    const struct {
        const char *rootServerPath, *rootLocalSuffix, *folderServerPath;
    } rows[] = {{"/Docs", "", "/Docs/Sub"},
                {"/Docs/", "", "/Docs/Sub"},
                {"/", "", "/Sub"},
                {"Docs", "/", "Docs/Sub"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.rootServerPath) + " " + row.rootLocalSuffix);
        root.serverPath = row.rootServerPath;
        root.localPath = rootPath + row.rootLocalSuffix;
        auto tree = retriever.GetEntryInfoTree(root);

        const QString folderPath = row.folderServerPath;
        const FileConfiguration file = tree->fileMap.value((folderPath + "/Report.TXT").toLower());
        EXPECT_EQ(QStringList({file.localPath, file.serverPath, file.name}),
                  QStringList({At("Sub/Report.TXT"), folderPath + "/Report.TXT", "Report.TXT"}));
        EXPECT_EQ(std::make_pair(file.size, file.rootId), std::make_pair(qint64(5), 5));
        EXPECT_EQ(QFileInfo(file.localPath).lastModified(), file.lastModified);
        const FolderConfiguration folder = tree->folderMap.value(folderPath.toLower());
        EXPECT_EQ(QStringList({folder.localPath, folder.serverPath, folder.path}),
                  QStringList({At("Sub"), folderPath, folderPath}));
        EXPECT_EQ(5, folder.rootId);
        EXPECT_TRUE(tree->folderMap.contains(root.serverPath.toLower()));
    }
    EXPECT_EQ(QVector<qint64>(4, 5), filter->sizes);
}

// A name that is not valid UTF-8 cannot be written back or sent; a path as long as the limit
// cannot be created. Such entries are left out, counted and named. What a folder left out holds
// is judged on its own, and reported once, through the folder. The walk is listed: a path of
// LOCAL_FILE_MAX_PATH characters cannot even be stat'ed (PATH_MAX counts the final NUL).
TEST_F(LocalTreeRetrieverTest, NamesThatAreNotUtf8AndPathsAtTheLengthLimitAreLeftOut) {
    auto padded = [this](const QString& lead, int length) {
        return At(lead) + QString(length - At(lead).size(), 'x');
    };
    const QString lossyFile = At("Sub/caf\uFFFD.txt"), lossyFolder = At("\uFFFDtude"),
                  longFolder = padded("long", LOCAL_FOLDER_MAX_PATH),
                  shortFolder = padded("short", LOCAL_FOLDER_MAX_PATH - 1),
                  longFile =
                      shortFolder + '/' + QString(LOCAL_FILE_MAX_PATH - LOCAL_FOLDER_MAX_PATH, 'f'),
                  inLongFolder = longFolder + '/' +
                                 QString(LOCAL_FILE_MAX_PATH - LOCAL_FOLDER_MAX_PATH - 1, 'f');
    core->walker = std::make_shared<ListedWalker>(
        QList<ListedWalker::Entry>{{lossyFile, false, "caf\\xE9.txt"},
                                   {lossyFolder, true, "\\xC9tude"},
                                   {longFolder, true},
                                   {shortFolder, true},
                                   {longFolder + "/f.txt"},
                                   {longFile},
                                   {longFile.chopped(1)},
                                   {inLongFolder}});
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    QStringList kept;
    for (const FolderConfiguration& f : tree->folderMap) kept << f.localPath;
    for (const FileConfiguration& f : tree->fileMap) {
        kept << f.localPath;
        EXPECT_EQ(Qt::UTC, f.lastModified.timeSpec());  // the walker answers in local time
    }
    kept.sort();
    EXPECT_EQ(kept,
              (QStringList{rootPath, longFolder + "/f.txt", shortFolder, longFile.chopped(1)}));
    EXPECT_EQ((QStringList{lossyFolder, longFolder}), folderSignals);
    EXPECT_EQ((QStringList{lossyFile, longFile}), fileSignals);
    EXPECT_EQ(QStringList({"Leaving out caf\\xE9.txt in local folder " + At("Sub") +
                               ": its name is not valid UTF-8.",
                           "Leaving out \\xC9tude in local folder " + rootPath +
                               ": its name is not valid UTF-8."}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
    EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL),
              QStringList{"Filtered out 3 local file(s) and 2 folder(s)"});
}

TEST_F(LocalTreeRetrieverTest, UnreadableFolderStopsTheWalk) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not apply to root";
    WriteFile(At("Locked/inner.txt"));
    QFile::setPermissions(At("Locked"), QFileDevice::Permissions());
    // Skipping the folder would make its content look deleted.
    EXPECT_THROW(retriever.GetEntryInfoTree(root), sync::core::SyncException);
    QFile::setPermissions(At("Locked"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

// Before the generated files are checked: they would all look missing.
TEST_F(LocalTreeRetrieverTest, MissingRootThrows) {
    const int generated = AddGenerated("missing.gen", -1);  // removed once checked
    root.localPath = At("gone");
    EXPECT_THROW(retriever.GetEntryInfoTree(root), sync::core::SyncException);
    EXPECT_TRUE(GeneratedIds().contains(generated));
}

TEST_F(LocalTreeRetrieverTest, GeneratedFilesAreCheckedAndRepaired) {
    for (const char* below : {"a.txt", ".{SyncTemp}/kept.gen", ".{SyncTemp}/orphan.gen"})
        WriteFile(At(below));
    FileConfiguration parent;
    parent.rootId = root.id;
    store->AddFile(parent);
    const int kept = AddGenerated(".{SyncTemp}/kept.gen", parent.id);
    AddGenerated("missing.gen", parent.id);
    AddGenerated(".{SyncTemp}/orphan.gen", parent.id + 100);
    const int overlay = AddGenerated("a.txt", parent.id);
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    // A generated record replaces the scanned file under the same key.
    EXPECT_EQ(".{synctemp}/kept.gen a.txt", Keys(tree->fileMap));
    EXPECT_EQ(kept, tree->fileMap.value("/docs/.{synctemp}/kept.gen").id);
    EXPECT_EQ(overlay, tree->fileMap.value("/docs/a.txt").id);
    // The records of a missing file and of a file without its source are gone for good.
    EXPECT_EQ((QList<int>{kept, overlay}), GeneratedIds());
    EXPECT_FALSE(QFile::exists(At(".{SyncTemp}/orphan.gen")));
    EXPECT_EQ(QStringList({"Generated file not found: " + At("missing.gen"),
                           "Parent file record not found for generated file: " +
                               At(".{SyncTemp}/orphan.gen") + ". Removing generated file."}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
}

TEST_F(LocalTreeRetrieverTest, ExitRequestReturnsThePartialTreeAtOnce) {
    WriteFile(At("a.txt"));
    WriteFile(At("b.txt"));
    const int generated = AddGenerated("missing.gen", -1);  // removed once checked
    core->StopAfterPolls(1);
    auto tree = retriever.GetEntryInfoTree(root);
    EXPECT_EQ(1, tree->fileMap.size());
    EXPECT_EQ(2, core->Polls());
    EXPECT_TRUE(GeneratedIds().contains(generated));
}

}  // namespace
