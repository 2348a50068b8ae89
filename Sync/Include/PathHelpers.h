#pragma once

#include <QString>

namespace sync {
namespace core {

// True when child lies below parent (case-sensitive); a path is never its own parent.
bool IsParentPath(const QString& parent, const QString& child);
// IsParentPath, or the same path without regard to case.
bool IsParentOrSamePath(const QString& a, const QString& b);
// True when another process holds the file open for writing (a non-blocking exclusive lock fails).
bool IsFileLockedForWrite(const QString& path);

}  // namespace core
}  // namespace sync
