#pragma once

#include <QLatin1Char>
#include <QString>

namespace sync {
namespace core {

// The server path of an entry below a root: the root's serverPath and the path below the
// root joined by exactly one "/". Either side may or may not carry a slash at the seam (a root
// at the server's top is "/", a path cut from a local path starts with "/"), so plain
// concatenation would give "//a" or "Docsa". An empty path below the root names the root.
inline QString JoinServerPath(const QString& rootServerPath, const QString& pathBelowRoot) {
    int start = 0;
    while (start < pathBelowRoot.size() && pathBelowRoot.at(start) == QLatin1Char('/')) ++start;
    if (start == pathBelowRoot.size()) return rootServerPath;
    int end = rootServerPath.size();
    while (end > 0 && rootServerPath.at(end - 1) == QLatin1Char('/')) --end;
    // Built at its exact size: trees keep one such path per entry, and joining with + leaves
    // spare capacity that costs about half as much again.
    QString joined;
    joined.reserve(end + 1 + pathBelowRoot.size() - start);
    joined.append(rootServerPath.constData(), end);
    joined.append(QLatin1Char('/'));
    joined.append(pathBelowRoot.constData() + start, pathBelowRoot.size() - start);
    return joined;
}

}  // namespace core
}  // namespace sync
