#pragma once

#include <chrono>
#include <mutex>

namespace sync {
namespace remote {

// A pause a server asked of one account: after a 429, or a 503 with Retry-After, no request of
// that account is sent until the time has passed; each is refused at once with the status that
// asked for the pause. Every backend (and every connection) of the account holds the same
// object, so one answer quiets the whole account instead of each remaining task asking again.
// Thread-safe.
class ServerPause {
public:
    // A 429 without Retry-After asks for a pause of no stated length: this long.
    static constexpr int DefaultSeconds = 60;

    // Takes note of an answer: a 429 pauses for retryAfterSeconds (DefaultSeconds when
    // negative), a 503 only when it named a time. A longer pause already running stays.
    void Note(int status, int retryAfterSeconds);
    // The status that asked for the pause while it lasts, with the whole seconds left (rounded
    // up); 0 when requests may go.
    int Refusal(int* secondsLeft = nullptr) const;

private:
    using Clock = std::chrono::steady_clock;
    mutable std::mutex _mutex;
    Clock::time_point _until;
    int _status = 0;
};

}  // namespace remote
}  // namespace sync
