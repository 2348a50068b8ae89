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
    const QStringList files = {"a.txt",           ".hidden",           "sub/.h/x",
                               "private/p.txt",   "skip.tmp",          "sub/skip.tmp",
                               ".{synctemp}/gen", ".{syncbackup}/old", "subway/x"};
    const QStringList folders = {"sub", "sub/.h", "private", ".{synctemp}", "subway"};
    // A generated file in the engine's folder stays; anything else there always goes.
    const QString kept =
        "/ .hidden .{synctemp}/gen a.txt private/ private/p.txt skip.tmp sub/ "
        "sub/.h/ sub/.h/x sub/skip.tmp subway/ subway/x";
    const struct {
        const char* name;
        bool hidden;
        bool onServer;  // the exclusions come from the server tree, not the local one
        QStringList excludedFiles, excludedFolders;
        const char* gone;
    } rows[] = {
        {"NothingExcluded", false, false, {}, {}, ""},
        {"HiddenNamesBelowTheRoot", true, false, {}, {}, ".hidden sub/.h/ sub/.h/x"},
        {"LeftOutLocally",
         false,
         false,
         {"skip.tmp"},
         {"private"},
         "private/ private/p.txt skip.tmp"},
        {"LeftOutOnTheServer",
         false,
         true,
         {"skip.tmp"},
         {"private"},
         "private/ private/p.txt skip.tmp"},
        // A folder key is a prefix of whole names only: "sub" does not exclude "subway".
        {"NestedFolder", false, false, {}, {"sub"}, "sub/ sub/.h/ sub/.h/x sub/skip.tmp"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EntryInfoTree config, server, local;
        Fill(config, files, folders);
        Fill(server, files, folders);
        QStringList localFiles = files, localFolders = folders;
        localFiles.removeAll(".{syncbackup}/old");  // only generated files are local there
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

        QStringList remaining = kept.split(' ');
        for (const QString& gone : QString(row.gone).split(' ')) remaining.removeAll(gone);
        remaining.sort();
        for (const EntryInfoTree* tree : {&config, &server, &local})
            EXPECT_EQ(remaining.join(' ').toStdString(), Listing(*tree).toStdString());
    }
}

}  // namespace
