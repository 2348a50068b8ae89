#include "FaultPlan.h"

namespace sync {
namespace test {

void FaultPlan::Add(const QString& key, int status, int nth) {
    _faults.insert(key, Fault{status, nth, _calls.value(key)});
}

void FaultPlan::Clear() {
    _faults.clear();
}

int FaultPlan::Check(const QString& key) {
    const int call = ++_calls[key];
    const auto it = _faults.constFind(key);
    if (it == _faults.constEnd()) return 0;
    if (it->nth == 0 || call - it->callsWhenSet == it->nth) return it->status;
    return 0;
}

}  // namespace test
}  // namespace sync
