#include "live_schedule.h"

#include <cerrno>
#include <ctime>

namespace {
constexpr __int128 ns_per_second = 1000000000;
}

live_schedule::live_schedule(int64_t start_ns, int64_t rate_num, int64_t rate_den)
    : start(start_ns), num(rate_num > 0 ? rate_num : 1), den(rate_den > 0 ? rate_den : 1)
{
}

int64_t live_schedule::due_ns(uint64_t k) const
{
    // 128 bits: k * den * 10^9 outgrows 64 bits after about a month at 1001 ticks.
    const __int128 ticks = __int128(k) * den * ns_per_second;
    return start + int64_t((ticks + num - 1) / num);
}

uint64_t live_schedule::index_at(int64_t now_ns) const
{
    if (now_ns < start)
        return 0;
    const __int128 elapsed = now_ns - start;
    uint64_t k = uint64_t(elapsed * num / (__int128(den) * ns_per_second));
    // due_ns rounds up: step back when k's due time is still ahead.
    while (k > 0 && due_ns(k) > now_ns)
        --k;
    return k;
}

int64_t live_schedule::period_ns() const { return int64_t(__int128(den) * ns_per_second / num); }

int64_t live_now_ns()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

bool live_sleep_until(int64_t when_ns)
{
    timespec t{};
    t.tv_sec = time_t(when_ns / 1000000000);
    t.tv_nsec = long(when_ns % 1000000000);
    // An absolute deadline: a wake-up that comes late does not push the next one.
    return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) != EINTR;
}
