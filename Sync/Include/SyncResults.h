#pragma once

#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QStringList>

namespace sync {
namespace core {

// What a worker, a root folder or a whole cycle did. A value: copied, returned and summed.
// It derives from QObject only because it travels through queued signals.
class SyncResults : public QObject {
public:
    enum ResultType { None = 0, Files = 1, Tasks = 2, Folders = 3, Combined = 4 };

    // The eight kinds of work, in the order every report uses.
    enum Category {
        FileServerCreation = 0,
        FileServerDeletion,
        FileLocalCreation,
        FileLocalDeletion,
        FolderServerCreation,
        FolderServerDeletion,
        FolderLocalCreation,
        FolderLocalDeletion,
        CategoryCount
    };

    SyncResults();
    // The counters come in the historical argument order, which differs from the field order.
    SyncResults(ResultType type, int fileServerCreations, int fileServerCreationErrors,
                int fileLocalCreations, int fileLocalCreationErrors, int fileLocalDeletions,
                int fileLocalDeletionErrors, int fileServerDeletions, int fileServerDeletionErrors,
                int folderServerCreations, int folderServerCreationErrors, int folderLocalCreations,
                int folderLocalCreationErrors, int folderLocalDeletions,
                int folderLocalDeletionErrors, int folderServerDeletions,
                int folderServerDeletionErrors);
    SyncResults(const SyncResults& other);
    SyncResults& operator=(const SyncResults& other);
    ~SyncResults() override;

    SyncResults& operator+=(const SyncResults& other);

    bool anyErrors() const;
    bool anyWorkDone() const;

    // Uniform access by category, for code that walks all eight.
    int& done(Category c);
    int done(Category c) const;
    int& errors(Category c);
    int errors(Category c) const;
    QStringList& donePaths(Category c);
    const QStringList& donePaths(Category c) const;
    QStringList& errorPaths(Category c);
    const QStringList& errorPaths(Category c) const;
    // The label of a category's error counter, as the cycle's error report prints it.
    static QString ErrorLabel(Category c);
    // One entry of a category done, or failed with its path and status (0: no status, as for a
    // failure of the local disk).
    void CountDone(Category c, const QString& path);
    void CountFailure(Category c, const QString& path, int status = 0);

    ResultType type = Combined;

    int FileServerCreations = 0;
    int FileServerCreationErrors = 0;
    int FileServerDeletions = 0;
    int FileServerDeletionErrors = 0;
    int FileLocalCreations = 0;
    int FileLocalCreationErrors = 0;
    int FileLocalDeletions = 0;
    int FileLocalDeletionErrors = 0;
    int FolderServerCreations = 0;
    int FolderServerCreationErrors = 0;
    int FolderServerDeletions = 0;
    int FolderServerDeletionErrors = 0;
    int FolderLocalCreations = 0;
    int FolderLocalCreationErrors = 0;
    int FolderLocalDeletions = 0;
    int FolderLocalDeletionErrors = 0;

    QMap<int, int> errorCodes;

    QStringList FileServerCreationPaths;
    QStringList FileServerCreationErrorPaths;
    QStringList FileServerDeletionPaths;
    QStringList FileServerDeletionErrorPaths;
    QStringList FileLocalCreationPaths;
    QStringList FileLocalCreationErrorPaths;
    QStringList FileLocalDeletionPaths;
    QStringList FileLocalDeletionErrorPaths;
    QStringList FolderServerCreationPaths;
    QStringList FolderServerCreationErrorPaths;
    QStringList FolderServerDeletionPaths;
    QStringList FolderServerDeletionErrorPaths;
    QStringList FolderLocalCreationPaths;
    QStringList FolderLocalCreationErrorPaths;
    QStringList FolderLocalDeletionPaths;
    QStringList FolderLocalDeletionErrorPaths;

private:
    void _CopyMembers(const SyncResults& other);
};

}  // namespace core
}  // namespace sync

Q_DECLARE_METATYPE(sync::core::SyncResults)
