#include <gtest/gtest.h>

#include <QStringList>

#include "EntryInfoTree.h"
#include "ExcludedEntryPruner.h"

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::syncService::EntryInfoTree;
using sync::syncService::ExcludedEntryPruner;

namespace {

// The root itself has a hidden name: only names below it count.
const QString kRoot = "/.docs";

void Fill(EntryInfoTree& tree, const QStringList& files, const QStringList& folders) {
    for (const QString& f : files) tree.fileMap.insert(kRoot + '/' + f, FileConfiguration());
    tree.folderMap.insert(kRoot, FolderConfiguration());
    for (const QString& f : folders) tree.folderMap.insert(kRoot + '/' + f, FolderConfiguration());
}

QString Listing(const EntryInfoTree& tree) {
    QStringList keys;
    for (const QString& k : tree.fileMap.keys()) keys << k.mid(kRoot.size() + 1);
    for (const QString& k : tree.folderMap.keys()) keys << k.mid(kRoot.size() + 1) + '/';
    keys.sort();
    return keys.join(' ');
}

QSet<QString> Keys(const QStringList& below) {
    QSet<QString> keys;
    for (const QString& b : below) keys.insert(kRoot + '/' + b);
    return keys;
}

TEST(ExcludedEntryPrunerTest, LeavesWhatEitherSideLeftOutOutOfAllThreeTrees) {
    const QStringList files = {"a.txt",    ".hidden",      "sub/.h/x",        "private/p.txt",
                               "skip.tmp", "sub/skip.tmp", ".{synctemp}/gen", ".{syncbackup}/old"};
    const QStringList folders = {"sub", "sub/.h", "private", ".{synctemp}"};
    const struct {
        const char* name;
        bool hidden;
        bool onServer;  // the exclusions come from the server tree, not the local one
        QStringList excludedFiles, excludedFolders;
        const char* remaining;
    } rows[] = {
        // A generated file in the engine's folder stays; anything else there goes.
        {"NothingExcluded",
         false,
         false,
         {},
         {},
         "/ .hidden .{synctemp}/gen a.txt private/ private/p.txt skip.tmp sub/ sub/.h/ "
         "sub/.h/x sub/skip.tmp"},
        {"HiddenNamesBelowTheRoot",
         true,
         false,
         {},
         {},
         "/ .{synctemp}/gen a.txt private/ private/p.txt skip.tmp sub/ sub/skip.tmp"},
        {"FolderAndFileLeftOutLocally",
         false,
         false,
         {"skip.tmp"},
         {"private"},
         "/ .hidden .{synctemp}/gen a.txt sub/ sub/.h/ sub/.h/x sub/skip.tmp"},
        {"FolderAndFileLeftOutOnTheServer",
         false,
         true,
         {"skip.tmp"},
         {"private"},
         "/ .hidden .{synctemp}/gen a.txt sub/ sub/.h/ sub/.h/x sub/skip.tmp"},
        // A folder key is a prefix of whole names only: "sub" does not exclude "subway".
        {"NestedFolder",
         false,
         false,
         {},
         {"sub"},
         "/ .hidden .{synctemp}/gen a.txt private/ private/p.txt skip.tmp"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EntryInfoTree config, server, local;
        Fill(config, files + QStringList{"subway/x"}, folders + QStringList{"subway"});
        Fill(server, files + QStringList{"subway/x"}, folders + QStringList{"subway"});
        QStringList localFiles = files + QStringList{"subway/x"};
        localFiles.removeAll(".{syncbackup}/old");  // only generated files are local there
        QStringList localFolders = folders + QStringList{"subway"};
        localFolders.removeAll(".{synctemp}");
        if (row.hidden) {  // the walk does not list them
            for (const char* hidden : {".hidden", "sub/.h/x"}) localFiles.removeAll(hidden);
            localFolders.removeAll("sub/.h");
        }
        Fill(local, localFiles, localFolders);
        EntryInfoTree& excluding = row.onServer ? server : local;
        excluding.excludedFileKeys = Keys(row.excludedFiles);
        excluding.excludedFolderKeys = Keys(row.excludedFolders);
        local.hiddenEntriesExcluded = row.hidden;

        ExcludedEntryPruner::Prune("/.Docs", config, local, server);

        const QString remaining = QString(row.remaining) + " subway/ subway/x";
        QStringList sorted = remaining.split(' ');
        sorted.sort();
        EXPECT_EQ(sorted.join(QLatin1Char(' ')).toStdString(), Listing(config).toStdString());
        EXPECT_EQ(sorted.join(QLatin1Char(' ')).toStdString(), Listing(server).toStdString());
        EXPECT_EQ(sorted.join(QLatin1Char(' ')).toStdString(), Listing(local).toStdString());
    }
}

}  // namespace
