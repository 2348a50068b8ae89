#pragma once

#include <QString>
#include <QVector>

namespace sync {
namespace core {

// The details of an action-log entry: a kind the action log knows how to word, and its
// text arguments in order.
class SyncDetails {
public:
    SyncDetails() = default;
    explicit SyncDetails(int kind, const QVector<QString>& arguments = {})
        : kind(kind), arguments(arguments) {}
    bool operator==(const SyncDetails& o) const {
        return kind == o.kind && arguments == o.arguments;
    }

    int kind = 0;
    QVector<QString> arguments;
};

}  // namespace core
}  // namespace sync
