#include "LocalEntryInfoTreeRetriever.h"

#include "ServerPaths.h"
#include "SharedText.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SyncException.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;

namespace {

ushort AsciiLower(ushort c) {
    return c >= 'A' && c <= 'Z' ? ushort(c + ('a' - 'A')) : c;
}

bool IsAscii(QStringView text) {
    for (const QChar c : text)
        if (c.unicode() >= 0x80) return false;
    return true;
}

// Qt's case-insensitive search folds every character through the Unicode tables, which costs
// the walk of a large tree a good share of its time. Between ASCII texts, folding is lowering
// A-Z, and this search gives the same answer; anything else goes to Qt.
bool ContainsIgnoringCase(QStringView text, QStringView part) {
    // An ASCII character that is not a letter matches only itself, in any case: a text that
    // lacks one of part's is settled by a vectorised search, as nearly every path is. From the
    // end, where the engine's names keep a character that paths seldom hold.
    for (qsizetype i = part.size() - 1; i >= 0; --i) {
        const QChar c = part[i];
        const char16_t u = c.unicode();
        if (u >= 0x80 || (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z')) continue;
        if (!text.contains(c)) return false;
    }
    if (!IsAscii(text) || !IsAscii(part)) return text.contains(part, Qt::CaseInsensitive);
    const qsizetype last = text.size() - part.size();
    for (qsizetype start = 0; start <= last; ++start) {
        qsizetype i = 0;
        while (i < part.size() &&
               AsciiLower(text[start + i].unicode()) == AsciiLower(part[i].unicode()))
            ++i;
        if (i == part.size()) return true;
    }
    return false;
}

// The engine's own temporary and backup folders are never content, in any letter case.
bool IsInEngineFolder(const QString& path) {
    return ContainsIgnoringCase(path, sync::core::consts::TEMP_FOLDER_NAME) ||
           ContainsIgnoringCase(path, sync::core::consts::BASE_FOLDER_NAME);
}

// The tree keeps a string per entry and field for the whole cycle; the walker's strings may
// carry spare capacity from being joined, which would cost about a third more per path.
QString Exact(const QString& text) {
    if (text.capacity() <= text.size()) return text;
    return QString(text.constData(), text.size());
}

}  // namespace

LocalEntryInfoTreeRetriever::LocalEntryInfoTreeRetriever(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::ISyncFilter> fileFilter,
    std::shared_ptr<sync::interf::ISyncFilter> folderFilter)
    : _folderConfigManager(std::move(folderConfigManager)),
      _fileConfigManager(std::move(fileConfigManager)),
      _coreFactory(std::move(coreFactory)),
      _fileFilter(std::move(fileFilter)),
      _folderFilter(std::move(folderFilter)) {}

std::shared_ptr<EntryInfoTree> LocalEntryInfoTreeRetriever::GetEntryInfoTree(
    FolderConfiguration& root) {
    auto dirWrapper = _coreFactory->CreateQDirWrapper(std::make_shared<QDir>(root.localPath));
    if (_RootFolderAppearsMissing(root, dirWrapper)) {
        throw sync::core::SyncException(
            QStringLiteral("The local root folder for %0 seems to be missing.")
                .replace(QLatin1String("%0"), root.localPath));
    }

    auto tree = std::make_shared<EntryInfoTree>();
    tree->folderMap.insert(EntryInfoTree::KeyOf(root.serverPath), root);

    // The walker applies these itself, so links, hidden entries, "." and ".." never reach us.
    // Not following links also keeps a link loop from walking forever.
    QDir::Filters filters;
    QDirIterator::IteratorFlags flags = QDirIterator::NoIteratorFlags;
    if (root.syncScope == sync::config::SyncScopeRootOnly) {
        filters = QDir::Files | QDir::NoSymLinks;
    } else if (root.syncScope == sync::config::SyncScopeWholeTree) {
        filters = QDir::Files | QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot;
        flags = QDirIterator::Subdirectories;
    }
    // Any other scope lists nothing; the generated files below are still checked.
    const bool listed = root.syncScope == sync::config::SyncScopeWholeTree ||
                        root.syncScope == sync::config::SyncScopeRootOnly;
    if (root.hasSyncOption(sync::config::SyncHiddenEntries)) filters |= QDir::Hidden;

    auto checkForExit = _coreFactory->CreateCheckForExit();
    const int rootLength = root.localPath.length();
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> walker;
    if (listed) walker = _coreFactory->CreateQDirIterator(root.localPath, filters, flags);

    // The walk does not show hidden entries; planning must not take them for deleted ones.
    tree->hiddenEntriesExcluded = !root.hasSyncOption(sync::config::SyncHiddenEntries);

    int filteredFiles = 0;
    int filteredFolders = 0;
    while (walker && walker->HasNext()) {
        walker->Next();
        if (checkForExit->ShouldExit()) return tree;
        auto info = walker->FileInfo();
        const QString path = info->AbsoluteFilePath();
        const QString pathBelowRoot = path.mid(rootLength);
        if (!info->IsFile() && !info->IsDir()) continue;
        if (IsInEngineFolder(path)) continue;
        const QString undecodableName = info->UndecodableName();
        if (!undecodableName.isEmpty()) {
            // Such a name cannot be written back to the disk or sent to the server.
            SYNC_LOG_WARN("Leaving out %1 in local folder %2: its name is not valid UTF-8.",
                          undecodableName, path.section(QLatin1Char('/'), 0, -2));
            if (info->IsFile()) {
                ++filteredFiles;
                Q_EMIT FileFilteredOut(path);
            } else {
                ++filteredFolders;
                Q_EMIT FolderFilteredOut(path);
            }
            continue;
        }
        if (info->IsFile()) {
            FileConfiguration file;
            file.localPath = Exact(path);
            file.serverPath = sync::core::JoinServerPath(root.serverPath, pathBelowRoot);
            file.name = sync::config::LastComponentOf(file.localPath);
            file.lastModified = info->LastModified().toUTC();
            file.size = info->Size();
            file.rootId = root.rootId;
            const QString key = EntryInfoTree::KeyOf(file.serverPath);
            if (_FilterFile(path, pathBelowRoot, file.size) || _FilterFileNameByMaxLength(file)) {
                ++filteredFiles;
                tree->excludedFileKeys.insert(key);
                SYNC_LOG_DEBUG("Filtered out local file %1", path);
                continue;
            }
            const QStringList clash =
                tree->PutWalked(tree->fileMap, tree->excludedFileKeys, tree->clashingFileKeys, key,
                                std::move(file), &FileConfiguration::localPath);
            filteredFiles += clash.size();
            _ReportClash(clash, /*folders=*/false);
        } else {
            FolderConfiguration folder;
            folder.localPath = Exact(path);
            folder.serverPath = sync::core::JoinServerPath(root.serverPath, pathBelowRoot);
            folder.path = folder.serverPath;
            folder.name = Exact(info->FileName());
            folder.lastModified = info->LastModified();
            folder.rootId = root.rootId;
            const QString key = EntryInfoTree::KeyOf(folder.serverPath);
            // A folder left out keeps its content out of planning too (the content is still
            // walked, and judged on its own by the filters).
            if (_FilterFolder(root.localPath, path) || _FilterFolderNameByMaxLength(folder)) {
                ++filteredFolders;
                tree->excludedFolderKeys.insert(key);
                SYNC_LOG_DEBUG("Filtered out local folder %1", path);
                continue;
            }
            const QStringList clash =
                tree->PutWalked(tree->folderMap, tree->excludedFolderKeys, tree->clashingFolderKeys,
                                key, std::move(folder), &FolderConfiguration::localPath);
            filteredFolders += clash.size();
            _ReportClash(clash, /*folders=*/true);
        }
    }
    if (filteredFiles > 0 || filteredFolders > 0)
        SYNC_LOG_INFO("Filtered out %1 local file(s) and %2 folder(s)", filteredFiles,
                      filteredFolders);

    _AddGeneratedFiles(root, *tree, *checkForExit);
    return tree;
}

void LocalEntryInfoTreeRetriever::_AddGeneratedFiles(const FolderConfiguration& root,
                                                     EntryInfoTree& tree,
                                                     sync::interf::ICheckForExit& checkForExit) {
    const QVector<FileConfiguration> generated =
        _fileConfigManager->GetGeneratedFilesByRootId(root.id, false);
    for (const FileConfiguration& file : generated) {
        if (checkForExit.ShouldExit()) return;
        auto fileWrapper = _coreFactory->CreateFileWrapper();
        fileWrapper->SetFileName(file.localPath);
        if (!fileWrapper->Exists()) {
            SYNC_LOG_WARN("Generated file not found: %1", fileWrapper->FileName());
            _fileConfigManager->RemoveGeneratedFile(file.id);
            continue;
        }
        if (_fileConfigManager->GetFileById(file.parentFileId).id == -1) {
            // Nothing would ever update or remove a file whose source record is gone.
            SYNC_LOG_WARN(
                "Parent file record not found for generated file: %1. Removing generated file.",
                fileWrapper->FileName());
            if (!fileWrapper->Remove())
                SYNC_LOG_WARN("Failed to delete generated file: %1", fileWrapper->FileName());
            _fileConfigManager->RemoveGeneratedFile(file.id);
            continue;
        }
        tree.fileMap.insert(EntryInfoTree::KeyOf(file.serverPath), file);
    }
}

void LocalEntryInfoTreeRetriever::_ReportClash(const QStringList& paths, bool folders) {
    for (const QString& path : paths)
        folders ? Q_EMIT FolderFilteredOut(path) : Q_EMIT FileFilteredOut(path);
}

bool LocalEntryInfoTreeRetriever::_RootFolderAppearsMissing(
    const FolderConfiguration& /*root*/,
    const std::shared_ptr<sync::interf::IQDirWrapper>& dirWrapper) {
    return !dirWrapper->Exists();
}

bool LocalEntryInfoTreeRetriever::_FilterFile(const QString& filePath, const QString& pathBelowRoot,
                                              qint64 size) {
    if (_fileFilter->FilterFile(pathBelowRoot, size, false) == 0) return false;
    Q_EMIT FileFilteredOut(filePath);
    return true;
}

bool LocalEntryInfoTreeRetriever::_FilterFolder(const QString& rootLocalPath,
                                                const QString& folderPath) {
    if (_folderFilter->FilterFolder(folderPath.mid(rootLocalPath.length()), false) == 0)
        return false;
    Q_EMIT SubFolderNameNotAllowed(folderPath);
    return true;
}

bool LocalEntryInfoTreeRetriever::_FilterFileNameByMaxLength(const FileConfiguration& file) {
    if (file.localPath.length() < sync::core::consts::LOCAL_FILE_MAX_PATH) return false;
    // A file in a folder that is itself too long is reported once, through its folder.
    const int folderPathLength = file.localPath.length() - 1 - file.name.length();
    if (folderPathLength < sync::core::consts::LOCAL_FOLDER_MAX_PATH)
        Q_EMIT FileFilteredOut(file.localPath);
    return true;
}

bool LocalEntryInfoTreeRetriever::_FilterFolderNameByMaxLength(const FolderConfiguration& folder) {
    if (folder.localPath.length() < sync::core::consts::LOCAL_FOLDER_MAX_PATH) return false;
    Q_EMIT FolderFilteredOut(folder.localPath);
    return true;
}

}  // namespace syncService
}  // namespace sync
