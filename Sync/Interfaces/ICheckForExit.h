#pragma once

#include <QObject>

namespace sync {
namespace interf {

// Tells the engine whether the service is stopping. Thread-safe: the host asks to stop from
// its own thread while the service thread polls.
class ICheckForExit : public QObject {
    Q_OBJECT
public:
    ~ICheckForExit() override = default;
    // True when the running cycle must stop now.
    virtual bool ShouldExit() = 0;
    // True when the service thread must end.
    virtual bool ShouldExitThread() = 0;

Q_SIGNALS:
    // Emitted once when a stop is requested, so that a waiting service wakes up and ends.
    void PrepareToQuit();
};

}  // namespace interf
}  // namespace sync
