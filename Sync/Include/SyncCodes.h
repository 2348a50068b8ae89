#pragma once

// Every number that crosses a boundary — to the action log, from the server, into a stored
// record — has its one name here, used alike by the engine, the companions and the tests.

#include "SyncConsts.h"

namespace sync {

namespace core {
namespace actionlog {

// Types of action-log entries.
enum EntryType {
    RootFolderSynchronized = 2,
    RootFolderFailed = 3,
    ConnectionProblem = 4,
    LocalFileMovedToTrash = 9,
    LocalFileNotRemoved = 15,
    LocalFolderCreated = 17,
    LocalFolderNotCreated = 18,
    LocalFolderDeleted = 19,
    LocalFolderNotDeleted = 20,
    RootFolderRemoved = 27,
};

// Kinds of the details record of an entry; the comment names its arguments.
enum DetailsKind {
    UnexpectedError = 0,          // none
    NoNetwork = 1,                // none
    NetworkDriveUnreachable = 3,  // the root's localPath
    ErrorCounts = 12,             // four transfer counts, then eight error counts
    ItemInUse = 14,               // the path
    TransferCounts = 16,          // uploaded, downloaded, deleted on server, deleted locally
    RootFolderRemovedPath = 19,   // the root's localPath in native separators
    PathTooLong = 20,             // the path
};

// ConnectionError's code when the machine has no network.
constexpr int kNotConnected = 3;

}  // namespace actionlog
}  // namespace core

namespace http {

// Result codes of the remote managers: 0 for success, otherwise an HTTP status.
enum Status {
    Success = 0,
    NotModified = 304,
    BadRequest = 400,
    Unauthorized = 401,
    Forbidden = 403,
    NotFound = 404,
    Conflict = 409,
    PreconditionFailed = 412,
    Locked = 423,
    TooManyRequests = sync::core::consts::HTTP_TOO_MANY_REQUESTS,
    // Not an answer of the server: the server's certificate is not trusted.
    CertificateNotTrusted = 495,
    InternalServerError = 500,
    // No usable answer: the connection broke off or the answer was malformed.
    BadGateway = 502,
    ServiceUnavailable = 503,
    InsufficientStorage = 507,
};

}  // namespace http

namespace config {

// FolderConfiguration::syncScope: how much of a root folder is synchronised. Any other value
// synchronises nothing.
enum SyncScope {
    SyncScopeWholeTree = 0,
    SyncScopeRootOnly = 1,
};

// FileConfiguration::transferDirection: the last transfer prepared for the file.
enum TransferDirection {
    TransferNone = 0,
    TransferDownload = 1,
    TransferUpload = 2,
    TransferLocalDeletion = 3,
};

// FileConfiguration::generatedKind of a generated file.
enum GeneratedKind {
    GeneratedNone = 0,
    GeneratedBaseCopy = 2,
};

}  // namespace config
}  // namespace sync
