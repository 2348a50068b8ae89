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

// Lists the paths it is given as files, with no need for them to exist.
class FileListWalker : public sync::interf::IQDirIteratorWrapper,
                       public sync::interf::IQFileInfoWrapper {
public:
    explicit FileListWalker(QStringList paths) : _paths(std::move(paths)) {}
    std::shared_ptr<sync::interf::IQFileInfoWrapper> FileInfo() override {
        return std::shared_ptr<sync::interf::IQFileInfoWrapper>(this, [](auto*) {});
    }
    bool HasNext() override { return !_paths.isEmpty(); }
    QString Next() override { return _current = _paths.takeFirst(); }
    QString AbsoluteFilePath() override { return _current; }
    QString FileName() override { return _current.section('/', -1); }
    qint64 Size() override { return 1; }
    QDateTime LastModified() override { return QDateTime::currentDateTime(); }
    bool IsFile() override { return true; }
    bool IsDir() override { return false; }
    bool IsSymLink() override { return false; }
    bool IsHidden() override { return false; }
    bool Exists() override { return true; }

private:
    QStringList _paths;
    QString _current;
};

// Lists entries whose names are not valid UTF-8, as the walker reports them: a lossy path, the
// escaped bytes and the kind.
class UndecodableNameWalker : public FileListWalker {
public:
    UndecodableNameWalker(QStringList paths, QStringList escaped, QList<bool> dirs)
        : FileListWalker(paths), _escaped(std::move(escaped)), _dirs(std::move(dirs)) {}
    QString Next() override {
        ++_index;
        return FileListWalker::Next();
    }
    QString UndecodableName() override { return _escaped.value(_index); }
    bool IsFile() override { return !_dirs.value(_index); }
    bool IsDir() override { return _dirs.value(_index); }

private:
    QStringList _escaped;
    QList<bool> _dirs;
    int _index = -1;
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

TEST_F(LocalTreeRetrieverTest, WalksWhatTheScopeAndOptionsSelect) {
    for (const char* below : {"a.txt", ".hidden.txt", "Sub/b.txt", "Sub/Deep/c.txt",
                              ".hiddenDir/d.txt", "Private/p.txt", "skip.tmp",
                              // The engine's own folders, in whatever letter case the disk has.
                              ".{syncTEMP}/t.txt", "Sub/.{SYNCBACKUP}/x.BASE"})
        WriteFile(At(below));
    // Links are never followed, so a loop cannot trap the walk, and never listed.
    ASSERT_TRUE(QFile::link(rootPath, At("Sub/loop")));
    ASSERT_TRUE(QFile::link(At("a.txt"), At("link.txt")));
    filter->excluded = QStringList{"/skip.tmp", "/Private"};
    const struct {
        const char* name;
        int syncScope;
        bool hidden;
        const char *files, *folders;
    } rows[] = {
        {"WholeTree", 0, false, "a.txt private/p.txt sub/b.txt sub/deep/c.txt",
         "/docs sub sub/deep"},
        {"WholeTreeWithHidden", 0, true,
         ".hidden.txt .hiddendir/d.txt a.txt private/p.txt sub/b.txt sub/deep/c.txt",
         "/docs .hiddendir sub sub/deep"},
        {"RootOnly", 1, false, "a.txt", "/docs"},
        {"RootOnlyWithHidden", 1, true, ".hidden.txt a.txt", "/docs"},
        {"NothingForOtherScopes", 2, true, "", "/docs"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        root.syncScope = row.syncScope;
        root.setSyncOption(row.hidden ? sync::config::SyncHiddenEntries : 0);
        fileSignals.clear();
        notAllowedSignals.clear();
        LogCapture log;
        auto tree = retriever.GetEntryInfoTree(root);

        EXPECT_EQ(row.files, Keys(tree->fileMap));
        EXPECT_EQ(row.folders, Keys(tree->folderMap));
        EXPECT_FALSE(filter->sides.contains(true));
        if (row.syncScope != 0) continue;
        EXPECT_EQ(QStringList{At("Private")}, notAllowedSignals);
        EXPECT_EQ(QStringList{At("skip.tmp")}, fileSignals);
        // The engine's folders are skipped silently, not counted as filtered.
        EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL),
                  QStringList{"Filtered out 1 local file(s) and 1 folder(s)"});
        EXPECT_TRUE(
            log.Contains(log4cplus::DEBUG_LOG_LEVEL, "Filtered out local folder " + At("Private")));
    }
}

// What the walk leaves out by a rule is named, so that planning can leave it alone; names that
// differ only in letter case share a key and are both left out, and the user is told why.
TEST_F(LocalTreeRetrieverTest, LeftOutEntriesAreNamedAndLetterCaseClashesReported) {
    for (const char* below : {"ok.txt", "Sub/Notes.txt", "Sub/notes.txt", "Pics/a.jpg",
                              "pics/b.jpg", "Private/p.txt", "skip.tmp", ".hidden.txt"})
        WriteFile(At(below));
    filter->excluded = QStringList{"/skip.tmp", "/Private"};
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    EXPECT_EQ("ok.txt pics/a.jpg pics/b.jpg private/p.txt", Keys(tree->fileMap));
    EXPECT_EQ("/docs sub", Keys(tree->folderMap));
    EXPECT_EQ("skip.tmp sub/notes.txt", Keys(QStringList(tree->excludedFileKeys.values())));
    EXPECT_EQ("pics private", Keys(QStringList(tree->excludedFolderKeys.values())));
    EXPECT_TRUE(tree->hiddenEntriesExcluded);
    fileSignals.sort();
    folderSignals.sort();
    EXPECT_EQ(QStringList({At("Sub/Notes.txt"), At("Sub/notes.txt"), At("skip.tmp")}), fileSignals);
    EXPECT_EQ(QStringList({At("Pics"), At("pics")}), folderSignals);
    const QStringList warnings = log.Messages(log4cplus::WARN_LOG_LEVEL);
    ASSERT_EQ(2, warnings.size());
    for (const QString& w : warnings) {
        EXPECT_TRUE(w.contains("their names differ only in letter case")) << w.toStdString();
        EXPECT_TRUE((w.contains(At("Sub/Notes.txt")) && w.contains(At("Sub/notes.txt"))) ||
                    (w.contains(At("Pics")) && w.contains(At("pics"))))
            << w.toStdString();
    }
    EXPECT_EQ(QStringList{"Filtered out 3 local file(s) and 3 folder(s)"},
              log.Messages(log4cplus::INFO_LOG_LEVEL));
}

// A name that is not valid UTF-8 cannot be written back or sent: left out, counted and named.
TEST_F(LocalTreeRetrieverTest, NamesThatAreNotUtf8AreLeftOutWithAWarning) {
    const QString lossyFile = At("Sub/caf\uFFFD.txt"), lossyFolder = At("\uFFFDtude");
    core->walker = std::make_shared<UndecodableNameWalker>(
        QStringList{At("ok.txt"), lossyFile, lossyFolder},
        QStringList{"", "caf\\xE9.txt", "\\xC9tude"}, QList<bool>{false, false, true});
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    EXPECT_EQ("ok.txt", Keys(tree->fileMap));
    EXPECT_EQ("/docs", Keys(tree->folderMap));
    EXPECT_EQ(QStringList{lossyFile}, fileSignals);
    EXPECT_EQ(QStringList{lossyFolder}, folderSignals);
    EXPECT_EQ(QStringList({"Leaving out caf\\xE9.txt in local folder " + At("Sub") +
                               ": its name is not valid UTF-8.",
                           "Leaving out \\xC9tude in local folder " + rootPath +
                               ": its name is not valid UTF-8."}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
    EXPECT_EQ(QStringList{"Filtered out 1 local file(s) and 1 folder(s)"},
              log.Messages(log4cplus::INFO_LOG_LEVEL));
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
        EXPECT_EQ(At("Sub/Report.TXT"), file.localPath);
        EXPECT_EQ(folderPath + "/Report.TXT", file.serverPath);
        EXPECT_EQ("Report.TXT", file.name);
        EXPECT_EQ(5, file.size);
        EXPECT_EQ(5, file.rootId);
        EXPECT_EQ(Qt::UTC, file.lastModified.timeSpec());
        EXPECT_EQ(QFileInfo(file.localPath).lastModified(), file.lastModified);
        const FolderConfiguration folder = tree->folderMap.value(folderPath.toLower());
        EXPECT_EQ(At("Sub"), folder.localPath);
        EXPECT_EQ(folderPath, folder.serverPath);
        EXPECT_EQ(folderPath, folder.path);
        EXPECT_EQ("Sub", folder.name);
        EXPECT_EQ(5, folder.rootId);
        EXPECT_TRUE(tree->folderMap.contains(root.serverPath.toLower()));
    }
    EXPECT_EQ(QVector<qint64>(4, 5), filter->sizes);
}

// A folder or file is left out from the length limit on; what a folder left out holds is
// judged on its own, and reported once, through the folder.
TEST_F(LocalTreeRetrieverTest, LengthLimits) {
    auto deepFolder = [this](const QString& lead, int length) {
        QString path = At(lead);
        while (path.size() < length)
            path += '/' + QString(qMax(qMin(200, length - path.size() - 1), 1), 'd');
        EXPECT_TRUE(QDir().mkpath(path));
        return path;
    };
    const QString atLimit = deepFolder("long", LOCAL_FOLDER_MAX_PATH);
    const QString belowLimit = deepFolder("short", LOCAL_FOLDER_MAX_PATH - 1);
    ASSERT_EQ(LOCAL_FOLDER_MAX_PATH, atLimit.size());
    ASSERT_EQ(LOCAL_FOLDER_MAX_PATH - 1, belowLimit.size());
    WriteFile(atLimit + "/f.txt");

    auto tree = retriever.GetEntryInfoTree(root);

    QStringList paths;
    for (const FolderConfiguration& f : tree->folderMap) paths << f.localPath;
    for (const FileConfiguration& f : tree->fileMap) paths << f.localPath;
    EXPECT_FALSE(paths.contains(atLimit));
    EXPECT_TRUE(paths.contains(belowLimit));
    EXPECT_TRUE(paths.contains(atLimit + "/f.txt"));
    EXPECT_EQ(QStringList{atLimit}, folderSignals);
    EXPECT_TRUE(fileSignals.isEmpty());

    // A path of LOCAL_FILE_MAX_PATH characters cannot be stat'ed (PATH_MAX counts the final
    // NUL), so files at the limit are fed through a walker that lists them by name.
    const QString atFileLimit =
        belowLimit + '/' + QString(LOCAL_FILE_MAX_PATH - belowLimit.size() - 1, 'f');
    const QString inLongFolder =
        atLimit + '/' + QString(LOCAL_FILE_MAX_PATH - atLimit.size() - 1, 'f');
    ASSERT_EQ(LOCAL_FILE_MAX_PATH, atFileLimit.size());
    core->walker = std::make_shared<FileListWalker>(
        QStringList{atFileLimit, atFileLimit.chopped(1), inLongFolder});
    LogCapture log;

    tree = retriever.GetEntryInfoTree(root);

    ASSERT_EQ(1, tree->fileMap.size());
    EXPECT_EQ(atFileLimit.chopped(1), tree->fileMap.begin()->localPath);
    EXPECT_EQ(QStringList{atFileLimit}, fileSignals);
    EXPECT_EQ(log.Messages(log4cplus::INFO_LOG_LEVEL),
              QStringList{"Filtered out 2 local file(s) and 0 folder(s)"});
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
    try {
        retriever.GetEntryInfoTree(root);
        FAIL() << "no exception";
    } catch (const sync::core::SyncException& e) {
        EXPECT_EQ("The local root folder for " + root.localPath + " seems to be missing.",
                  e.message);
    }
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
