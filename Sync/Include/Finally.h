#pragma once

#include <functional>

namespace sync {
namespace core {

// Runs its action once when the scope ends, however it ends. The action must not throw.
class Finally {
public:
    explicit Finally(std::function<void()> action) : _action(std::move(action)) {}
    Finally(const Finally&) = delete;
    Finally& operator=(const Finally&) = delete;
    virtual ~Finally() {
        try {
            if (_action) _action();
        } catch (...) {
            // A destructor that throws during unwinding would terminate the process.
        }
    }

private:
    std::function<void()> _action;
};

}  // namespace core
}  // namespace sync
