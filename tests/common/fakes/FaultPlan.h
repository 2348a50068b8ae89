#pragma once

#include <QHash>
#include <QString>

namespace sync {
namespace test {

// Which calls of a fake must fail, and with what status. A fault is keyed by a name the fake
// checks on each call (an operation, a path); it hits every call, or only the n-th call made
// after the fault was set, so that "the third upload from now" can be staged after seeding.
class FaultPlan {
public:
    // nth 0: every call from now on; n > 0: only the n-th call from now on.
    void Add(const QString& key, int status, int nth = 0);
    void Clear();
    // Counts a call under key and answers the status it must fail with, or 0.
    int Check(const QString& key);
    // Calls counted under key so far.
    int Calls(const QString& key) const { return _calls.value(key); }

private:
    struct Fault {
        int status = 0;
        int nth = 0;
        int callsWhenSet = 0;
    };
    QHash<QString, Fault> _faults;
    QHash<QString, int> _calls;
};

}  // namespace test
}  // namespace sync
