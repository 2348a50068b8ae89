#pragma once

#include <atomic>

#include "ICheckForExit.h"

namespace sync {
namespace core {

// The stop request of the service, shared between the host's thread (RequestExit) and the
// service thread (the polls). A stop cannot be taken back.
class CheckForExit : public sync::interf::ICheckForExit {
    Q_OBJECT
public:
    CheckForExit() = default;
    ~CheckForExit() override = default;

    bool ShouldExit() override;
    bool ShouldExitThread() override;

    // Asks the running cycle and the service thread to end. The first request emits
    // PrepareToQuit(), after the polls already answer true, so that a service woken by the
    // signal sees the stop; later requests do nothing. Callable from any thread.
    void RequestExit();

private:
    std::atomic<bool> _exitRequested{false};
};

}  // namespace core
}  // namespace sync
