#include "EntryInfoTreeDiffer.h"

#include "ParallelScan.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// A record the database holds but that never reached the server counts as absent.
bool IsSynchronised(const FileConfiguration& file) {
    return file.syncStatus != FileSynchronizationStatus::NotSynchronized &&
           !file.serverFileId.isEmpty();
}

}  // namespace

EntryInfoTreeChange EntryInfoTreeDiffer::Diff(EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                              bool checkDownloadPrivilege) {
    // The rules get the trees by reference. Walking shallow copies keeps the walk, and its
    // order, fixed whatever a rule does to a tree; the copies cost nothing unless one does.
    const FileMap configFiles = configTree.fileMap;
    const FileMap otherFiles = otherTree.fileMap;
    const FolderMap configFolders = configTree.folderMap;
    const FolderMap otherFolders = otherTree.folderMap;

    EntryInfoTreeChange change;
    const int matchedFiles = _DiffConfigFiles(configFiles, otherFiles, configTree, otherTree,
                                              checkDownloadPrivilege, change);
    if (matchedFiles < otherFiles.size())
        _DiffNewFiles(configFiles, otherFiles, configTree, otherTree, change);
    const int matchedFolders =
        _DiffConfigFolders(configFolders, otherFolders, configTree, otherTree, change);
    if (matchedFolders < otherFolders.size())
        _DiffNewFolders(configFolders, otherFolders, configTree, otherTree, change);
    return change;
}

int EntryInfoTreeDiffer::_DiffConfigFiles(const FileMap& configFiles, const FileMap& otherFiles,
                                          EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                          bool checkDownloadPrivilege,
                                          EntryInfoTreeChange& change) {
    // Present on both sides, in step and still downloadable: nothing to report. The test reads
    // only the two maps, which nothing writes during the scan.
    const auto quiet = [&](FileMap::const_iterator configIt) {
        const auto otherIt = otherFiles.constFind(configIt.key());
        return otherIt != otherFiles.constEnd() && IsSynchronised(configIt.value()) &&
               IsFileSurelyUnchanged(configIt.value(), otherIt.value()) &&
               !(checkDownloadPrivilege &&
                 (otherIt->privileges & sync::config::PrivilegeDownload) == 0);
    };
    const auto changed =
        ParallelScan(configFiles, [&](FileMap::const_iterator it) { return !quiet(it); });

    // Every quiet entry is on both sides.
    int matched = configFiles.size() - static_cast<int>(changed.size());
    for (const auto& configIt : changed) {
        const auto otherIt = otherFiles.constFind(configIt.key());
        FileConfiguration configFile = configIt.value();
        const bool synchronised = IsSynchronised(configFile);
        if (otherIt == otherFiles.constEnd()) {
            if (synchronised && DetectFileDeleted(configFile))
                change.AddFileAction(EntryAction::Deleted, configFile);
            continue;
        }
        ++matched;
        if (synchronised && IsFileSurelyUnchanged(configFile, otherIt.value())) {
            // In step, but the account may no longer download it: gone as far as this
            // machine goes.
            change.AddFileAction(EntryAction::Deleted, configFile);
            continue;
        }

        FileConfiguration otherFile = otherIt.value();
        if (!synchronised) {
            // A record that never reached the server has nothing to delete, whatever the
            // privileges: Deleted here next to Added on the other side is a pair no resolver
            // accepts, and the root folder would fail in every cycle.
            if (DetectFileAdded(otherFile, configTree, otherTree))
                change.AddFileAction(EntryAction::Added, otherFile);
            continue;
        }
        if (DetectFileModified(configFile, otherFile)) {
            change.AddFileAction(EntryAction::Modified, otherFile);
            continue;
        }
        // A file the account may no longer download is gone as far as this machine goes.
        if (checkDownloadPrivilege && (otherFile.privileges & sync::config::PrivilegeDownload) == 0)
            change.AddFileAction(EntryAction::Deleted, configFile);
    }
    return matched;
}

void EntryInfoTreeDiffer::_DiffNewFiles(const FileMap& configFiles, const FileMap& otherFiles,
                                        EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                        EntryInfoTreeChange& change) {
    for (auto otherIt = otherFiles.constBegin(); otherIt != otherFiles.constEnd(); ++otherIt) {
        if (configFiles.contains(otherIt.key())) continue;
        FileConfiguration otherFile = otherIt.value();
        if (DetectFileAdded(otherFile, configTree, otherTree))
            change.AddFileAction(EntryAction::Added, otherFile);
    }
}

int EntryInfoTreeDiffer::_DiffConfigFolders(const FolderMap& configFolders,
                                            const FolderMap& otherFolders,
                                            EntryInfoTree& configTree, EntryInfoTree& otherTree,
                                            EntryInfoTreeChange& change) {
    int matched = 0;
    for (auto configIt = configFolders.constBegin(); configIt != configFolders.constEnd();
         ++configIt) {
        const bool notSynchronised =
            configIt.value().getSyncStatus() == FolderSynchronizationStatus::NotSynchronized;
        const bool onOtherSide = otherFolders.contains(configIt.key());
        if (onOtherSide) ++matched;
        // Nothing to ask of a folder present on both sides and in step (folders are never
        // modified), nor of a record never synchronised that is gone. Most folders end here.
        if (onOtherSide != notSynchronised) continue;

        FolderConfiguration configFolder = configIt.value();
        if (!onOtherSide) {
            if (DetectFolderDeleted(configFolder))
                change.AddFolderAction(EntryAction::Deleted, configFolder);
        } else if (DetectFolderAdded(configFolder, configTree, otherTree)) {
            // The database record carries the ids the workers need, so it goes with the action.
            change.AddFolderAction(EntryAction::Added, configFolder);
        }
    }
    return matched;
}

void EntryInfoTreeDiffer::_DiffNewFolders(const FolderMap& configFolders,
                                          const FolderMap& otherFolders, EntryInfoTree& configTree,
                                          EntryInfoTree& otherTree, EntryInfoTreeChange& change) {
    for (auto otherIt = otherFolders.constBegin(); otherIt != otherFolders.constEnd(); ++otherIt) {
        if (configFolders.contains(otherIt.key())) continue;
        FolderConfiguration otherFolder = otherIt.value();
        if (DetectFolderAdded(otherFolder, configTree, otherTree))
            change.AddFolderAction(EntryAction::Added, otherFolder);
    }
}

}  // namespace syncService
}  // namespace sync
