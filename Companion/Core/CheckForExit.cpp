#include "CheckForExit.h"

namespace sync {
namespace core {

bool CheckForExit::ShouldExit() {
    return _exitRequested.load();
}

bool CheckForExit::ShouldExitThread() {
    return _exitRequested.load();
}

void CheckForExit::RequestExit() {
    if (!_exitRequested.exchange(true)) Q_EMIT PrepareToQuit();
}

}  // namespace core
}  // namespace sync
