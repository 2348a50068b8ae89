#pragma once

#include <QString>
#include <QtGlobal>

namespace sync {
namespace config {

// One reference of a file; stored and copied, never interpreted by the engine.
class FileLink {
public:
    FileLink() = default;
    FileLink(qint64 linkId, const QString& target, const QString& kind, const QString& extra)
        : linkId(linkId), target(target), kind(kind), extra(extra) {}
    FileLink(const FileLink& other) { _CopyMembers(other); }
    FileLink& operator=(const FileLink& other) {
        if (this != &other) _CopyMembers(other);
        return *this;
    }
    virtual ~FileLink() = default;

    bool operator==(const FileLink& o) const {
        return linkId == o.linkId && target == o.target && kind == o.kind && extra == o.extra;
    }
    bool operator!=(const FileLink& o) const { return !(*this == o); }

    qint64 linkId = 0;
    QString target;
    QString kind;
    QString extra;

private:
    void _CopyMembers(const FileLink& o) {
        linkId = o.linkId;
        target = o.target;
        kind = o.kind;
        extra = o.extra;
    }
};

}  // namespace config
}  // namespace sync
