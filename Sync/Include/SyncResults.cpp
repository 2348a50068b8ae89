#include "SyncResults.h"

namespace sync {
namespace core {

namespace {

using Counter = int SyncResults::*;
using PathList = QStringList SyncResults::*;

struct CategoryFields {
    Counter done;
    Counter errors;
    PathList donePaths;
    PathList errorPaths;
    const char* errorLabel;
};

// One row per category, in category order.
const CategoryFields kCategories[SyncResults::CategoryCount] = {
    {&SyncResults::FileServerCreations, &SyncResults::FileServerCreationErrors,
     &SyncResults::FileServerCreationPaths, &SyncResults::FileServerCreationErrorPaths,
     "FileServerCreationErrors"},
    {&SyncResults::FileServerDeletions, &SyncResults::FileServerDeletionErrors,
     &SyncResults::FileServerDeletionPaths, &SyncResults::FileServerDeletionErrorPaths,
     "FileServerDeletionErrors"},
    {&SyncResults::FileLocalCreations, &SyncResults::FileLocalCreationErrors,
     &SyncResults::FileLocalCreationPaths, &SyncResults::FileLocalCreationErrorPaths,
     "FileLocalCreationErrors"},
    {&SyncResults::FileLocalDeletions, &SyncResults::FileLocalDeletionErrors,
     &SyncResults::FileLocalDeletionPaths, &SyncResults::FileLocalDeletionErrorPaths,
     "FileLocalDeletionErrors"},
    {&SyncResults::FolderServerCreations, &SyncResults::FolderServerCreationErrors,
     &SyncResults::FolderServerCreationPaths, &SyncResults::FolderServerCreationErrorPaths,
     "FolderServerCreationErrors"},
    {&SyncResults::FolderServerDeletions, &SyncResults::FolderServerDeletionErrors,
     &SyncResults::FolderServerDeletionPaths, &SyncResults::FolderServerDeletionErrorPaths,
     "FolderServerDeletionErrors"},
    {&SyncResults::FolderLocalCreations, &SyncResults::FolderLocalCreationErrors,
     &SyncResults::FolderLocalCreationPaths, &SyncResults::FolderLocalCreationErrorPaths,
     "FolderLocalCreationErrors"},
    {&SyncResults::FolderLocalDeletions, &SyncResults::FolderLocalDeletionErrors,
     &SyncResults::FolderLocalDeletionPaths, &SyncResults::FolderLocalDeletionErrorPaths,
     "FolderLocalDeletionErrors"},
};

}  // namespace

SyncResults::SyncResults() : QObject(nullptr) {}

SyncResults::SyncResults(ResultType type, int fileServerCreations, int fileServerCreationErrors,
                         int fileLocalCreations, int fileLocalCreationErrors,
                         int fileLocalDeletions, int fileLocalDeletionErrors,
                         int fileServerDeletions, int fileServerDeletionErrors,
                         int folderServerCreations, int folderServerCreationErrors,
                         int folderLocalCreations, int folderLocalCreationErrors,
                         int folderLocalDeletions, int folderLocalDeletionErrors,
                         int folderServerDeletions, int folderServerDeletionErrors)
    : QObject(nullptr),
      type(type),
      FileServerCreations(fileServerCreations),
      FileServerCreationErrors(fileServerCreationErrors),
      FileServerDeletions(fileServerDeletions),
      FileServerDeletionErrors(fileServerDeletionErrors),
      FileLocalCreations(fileLocalCreations),
      FileLocalCreationErrors(fileLocalCreationErrors),
      FileLocalDeletions(fileLocalDeletions),
      FileLocalDeletionErrors(fileLocalDeletionErrors),
      FolderServerCreations(folderServerCreations),
      FolderServerCreationErrors(folderServerCreationErrors),
      FolderServerDeletions(folderServerDeletions),
      FolderServerDeletionErrors(folderServerDeletionErrors),
      FolderLocalCreations(folderLocalCreations),
      FolderLocalCreationErrors(folderLocalCreationErrors),
      FolderLocalDeletions(folderLocalDeletions),
      FolderLocalDeletionErrors(folderLocalDeletionErrors) {}

SyncResults::SyncResults(const SyncResults& other) : QObject(nullptr) {
    _CopyMembers(other);
}

SyncResults& SyncResults::operator=(const SyncResults& other) {
    if (this != &other) _CopyMembers(other);
    return *this;
}

SyncResults::~SyncResults() = default;

void SyncResults::_CopyMembers(const SyncResults& other) {
    type = other.type;
    errorCodes = other.errorCodes;
    for (const CategoryFields& f : kCategories) {
        this->*f.done = other.*f.done;
        this->*f.errors = other.*f.errors;
        this->*f.donePaths = other.*f.donePaths;
        this->*f.errorPaths = other.*f.errorPaths;
    }
}

SyncResults& SyncResults::operator+=(const SyncResults& other) {
    for (const CategoryFields& f : kCategories) {
        this->*f.done += other.*f.done;
        this->*f.errors += other.*f.errors;
    }
    if (type != other.type) type = Combined;
    for (auto it = other.errorCodes.constBegin(); it != other.errorCodes.constEnd(); ++it)
        errorCodes[it.key()] += it.value();
    // Appending a list to itself must not double-read the growing list.
    for (const CategoryFields& f : kCategories) {
        const QStringList donePaths = other.*f.donePaths;
        const QStringList errorPaths = other.*f.errorPaths;
        (this->*f.donePaths).append(donePaths);
        (this->*f.errorPaths).append(errorPaths);
    }
    return *this;
}

bool SyncResults::anyErrors() const {
    for (const CategoryFields& f : kCategories)
        if (this->*f.errors >= 1) return true;
    return false;
}

bool SyncResults::anyWorkDone() const {
    for (const CategoryFields& f : kCategories)
        if (this->*f.done > 0) return true;
    return anyErrors();
}

int& SyncResults::done(Category c) {
    return this->*kCategories[c].done;
}
int SyncResults::done(Category c) const {
    return this->*kCategories[c].done;
}
int& SyncResults::errors(Category c) {
    return this->*kCategories[c].errors;
}
int SyncResults::errors(Category c) const {
    return this->*kCategories[c].errors;
}
QStringList& SyncResults::donePaths(Category c) {
    return this->*kCategories[c].donePaths;
}
const QStringList& SyncResults::donePaths(Category c) const {
    return this->*kCategories[c].donePaths;
}
QStringList& SyncResults::errorPaths(Category c) {
    return this->*kCategories[c].errorPaths;
}
const QStringList& SyncResults::errorPaths(Category c) const {
    return this->*kCategories[c].errorPaths;
}
QString SyncResults::ErrorLabel(Category c) {
    return QString::fromLatin1(kCategories[c].errorLabel);
}

void SyncResults::CountDone(Category c, const QString& path) {
    ++done(c);
    donePaths(c).append(path);
}

void SyncResults::CountFailure(Category c, const QString& path, int status) {
    ++errors(c);
    errorPaths(c).append(path);
    if (status != 0) errorCodes[status] += 1;
}

}  // namespace core
}  // namespace sync
