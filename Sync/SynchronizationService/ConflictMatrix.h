#pragma once

#include <array>
#include <cstddef>

#include "EntryAction.h"
#include "SyncTaskType.h"

namespace sync {
namespace syncService {
namespace matrix {

// What a cell does with its pair.
enum How {
    Build,               // build the task from the record named
    VersionHandOver,     // file: hand the server's version to the local record, then build
    AttributeHandOver,   // folder: hand the server's attributes to the local record, then build
    LocalContentCheck,   // folder: `task` when new local content lies below, else `otherwise`
    ServerContentCheck,  // folder: `task` when new server content lies below, else `otherwise`
    Ignore,              // nothing to do
    Refuse,              // the change rules cannot produce the pair: throw
};

// Which of the two records the task is built from.
enum Record { NoRecord, ServerRecord, LocalRecord };

struct Cell {
    EntryAction server;
    EntryAction local;
    How how;
    SyncTaskType task = None;
    Record record = NoRecord;
    SyncTaskType otherwise = None;
};

using Matrix = std::array<Cell, 15>;

// Rule of thumb for both matrices: a change on one side only is carried to the other side, and
// an edit wins over a deletion on either side.
//
// Deliberate: a file modified on the server and deleted locally is downloaded again rather than
// deleted on the server, so that nobody's edit is lost to a deletion made elsewhere.
// clang-format off
inline constexpr Matrix kFileMatrix{{
    // server    local      how              task                 record
    {NoChange,  Added,     Build,           ServerFileCreation,  LocalRecord},
    {NoChange,  Deleted,   Build,           ServerFileDeletion,  LocalRecord},
    {NoChange,  Modified,  Build,           ServerFileCreation,  LocalRecord},
    {Added,     NoChange,  Build,           LocalFileCreation,   ServerRecord},
    {Added,     Added,     VersionHandOver, ServerFileCreation,  LocalRecord},
    {Added,     Deleted,   Refuse},
    {Added,     Modified,  Refuse},
    {Deleted,   NoChange,  Build,           LocalFileDeletion,   ServerRecord},
    {Deleted,   Added,     Refuse},
    {Deleted,   Deleted,   Build,           ServerFileDeletion,  LocalRecord},
    {Deleted,   Modified,  Build,           ServerFileCreation,  LocalRecord},
    {Modified,  NoChange,  Build,           LocalFileCreation,   ServerRecord},
    {Modified,  Added,     Refuse},
    {Modified,  Deleted,   Build,           LocalFileCreation,   ServerRecord},  // deliberate
    {Modified,  Modified,  VersionHandOver, ServerFileCreation,  LocalRecord},
}};
// clang-format on

// Folders never carry Modified from the change rules; those cells exist for completeness.
//
// Deliberate: a folder deleted locally but holding new server content below it is created
// locally again, so that the new content has somewhere to land; the entries the user deleted
// inside it are still deleted on the server by their own tasks.
// clang-format off
inline constexpr Matrix kFolderMatrix{{
    // server    local      how                 task                  record        otherwise
    {NoChange,  Added,     Build,              ServerFolderCreation, LocalRecord},
    {NoChange,  Deleted,   ServerContentCheck, LocalFolderCreation,  ServerRecord, ServerFolderDeletion},  // deliberate
    {NoChange,  Modified,  Ignore},
    {Added,     NoChange,  Build,              LocalFolderCreation,  ServerRecord},
    {Added,     Added,     AttributeHandOver,  LocalFolderCreation,  LocalRecord},
    {Added,     Deleted,   Build,              ServerFolderDeletion, LocalRecord},
    {Added,     Modified,  Ignore},
    {Deleted,   NoChange,  LocalContentCheck,  ServerFolderCreation, ServerRecord, LocalFolderDeletion},
    {Deleted,   Added,     Build,              ServerFolderCreation, LocalRecord},
    {Deleted,   Deleted,   Build,              LocalFolderDeletion,  LocalRecord},
    {Deleted,   Modified,  Build,              ServerFolderCreation, ServerRecord},
    {Modified,  NoChange,  Ignore},
    {Modified,  Added,     Ignore},
    {Modified,  Deleted,   Build,              ServerFolderDeletion, LocalRecord},
    {Modified,  Modified,  Ignore},
}};
// clang-format on

// Every pair but (NoChange, NoChange) has exactly one row.
constexpr bool IsComplete(const Matrix& m) {
    for (int s = NoChange; s <= Modified; ++s)
        for (int l = NoChange; l <= Modified; ++l) {
            int rows = 0;
            for (const Cell& c : m) rows += (c.server == s && c.local == l) ? 1 : 0;
            if (rows != ((s == NoChange && l == NoChange) ? 0 : 1)) return false;
        }
    return true;
}
static_assert(IsComplete(kFileMatrix), "the file matrix has one row per pair");
static_assert(IsComplete(kFolderMatrix), "the folder matrix has one row per pair");

// The cell of a pair; a cell of (NoChange, NoChange) when the matrix has no row for it.
constexpr Cell CellOf(const Matrix& m, EntryAction server, EntryAction local) {
    for (std::size_t i = 0; i < m.size(); ++i)
        if (m[i].server == server && m[i].local == local) return m[i];
    return Cell{NoChange, NoChange, Refuse};
}

}  // namespace matrix
}  // namespace syncService
}  // namespace sync
