#include "ServerPause.h"

#include "SyncCodes.h"

namespace sync {
namespace remote {

void ServerPause::Note(int status, int retryAfterSeconds) {
    if (status != sync::http::TooManyRequests &&
        !(status == sync::http::ServiceUnavailable && retryAfterSeconds >= 0))
        return;
    const int seconds = retryAfterSeconds >= 0 ? retryAfterSeconds : DefaultSeconds;
    const Clock::time_point until = Clock::now() + std::chrono::seconds(seconds);
    std::lock_guard<std::mutex> lock(_mutex);
    if (until <= _until) return;
    _until = until;
    _status = status;
}

int ServerPause::Refusal(int* secondsLeft) const {
    std::lock_guard<std::mutex> lock(_mutex);
    const Clock::duration left = _until - Clock::now();
    if (_status == 0 || left <= Clock::duration::zero()) return 0;
    if (secondsLeft) *secondsLeft = int(std::chrono::ceil<std::chrono::seconds>(left).count());
    return _status;
}

}  // namespace remote
}  // namespace sync
