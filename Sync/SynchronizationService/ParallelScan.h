#pragma once

#include <QtGlobal>
#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace sync {
namespace syncService {

// The passes over the trees look every entry up in another tree of 100,000 entries, and each
// lookup waits on memory. Most entries need nothing; finding the few that do is read-only, so
// it runs on two threads. Returns the entries for which `test` holds, in the map's own order,
// for the caller to handle one by one as before.
//
// `test` is called from two threads at once: it may only read the map, the trees it looks into
// and the caller's state, and must not throw. Nothing may write to any of them meanwhile.
template <typename Map, typename Test>
std::vector<typename Map::const_iterator> ParallelScan(const Map& map, Test test) {
    using Iterator = typename Map::const_iterator;
    using Found = std::vector<std::pair<qsizetype, Iterator>>;
    // Blocks of neighbouring entries, so that each thread reads its own spans of the map.
    constexpr qsizetype Block = 128;
    const auto scan = [&map, &test](qsizetype part, qsizetype parts, Found& found) {
        qsizetype index = 0;
        for (Iterator it = map.constBegin(); it != map.constEnd(); ++it, ++index)
            if ((index / Block) % parts == part && test(it)) found.emplace_back(index, it);
    };

    Found mine;
    Found theirs;
    std::thread helper;
    if (map.size() >= 8 * Block && std::thread::hardware_concurrency() > 1) {
        try {
            helper = std::thread(scan, 1, 2, std::ref(theirs));
        } catch (const std::system_error&) {
            // No thread to be had: this thread scans everything.
        }
    }
    try {
        scan(0, helper.joinable() ? 2 : 1, mine);
    } catch (...) {
        if (helper.joinable()) helper.join();
        throw;
    }
    if (helper.joinable()) helper.join();

    std::vector<Iterator> result;
    result.reserve(mine.size() + theirs.size());
    std::size_t a = 0;
    std::size_t b = 0;
    while (a < mine.size() || b < theirs.size()) {
        if (b == theirs.size() || (a < mine.size() && mine[a].first < theirs[b].first))
            result.push_back(mine[a++].second);
        else
            result.push_back(theirs[b++].second);
    }
    return result;
}

}  // namespace syncService
}  // namespace sync
