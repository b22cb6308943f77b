#include "platform/clock.h"

namespace {
int64_t monotonic_offset = 0;
bool monotonic_pinned = false;
int64_t monotonic_pinned_us = 0;
int64_t wall_offset = 0;
bool wall_pinned = false;
int64_t wall_pinned_us = 0;

int64_t read_clock_us(clockid_t id)
{
    timespec ts{};
    clock_gettime(id, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}
} // namespace

uint64_t monotonic_clock_us()
{
    if (monotonic_pinned)
        return uint64_t(monotonic_pinned_us);
    return uint64_t(read_clock_us(CLOCK_MONOTONIC) + monotonic_offset);
}

int64_t gettimeofday_us()
{
    if (wall_pinned)
        return wall_pinned_us;
    return read_clock_us(CLOCK_REALTIME) + wall_offset;
}

void t4mi_clock_set_monotonic_offset_us(int64_t offset) { monotonic_offset = offset; }
void t4mi_clock_set_wall_offset_us(int64_t offset) { wall_offset = offset; }
void t4mi_clock_pin_wall_us(int64_t wall_us)
{
    wall_pinned = true;
    wall_pinned_us = wall_us;
}
void t4mi_clock_unpin_wall() { wall_pinned = false; }
void t4mi_clock_pin_monotonic_us(int64_t mono_us)
{
    monotonic_pinned = true;
    monotonic_pinned_us = mono_us;
}
void t4mi_clock_unpin_monotonic() { monotonic_pinned = false; }

time_t calendar_end_of_minute(time_t t)
{
    tm local{};
    if (localtime_r(&t, &local) == nullptr)
        return t - (t % 60 + 60) % 60 + ((t % 60 + 60) % 60 ? 60 : 0);
    return local.tm_sec == 0 ? t : t + (60 - local.tm_sec);
}

time_t calendar_end_of_day(time_t t)
{
    tm local{};
    if (localtime_r(&t, &local) == nullptr)
        return t;
    if (local.tm_hour == 0 && local.tm_min == 0 && local.tm_sec == 0)
        return t;
    local.tm_mday += 1;
    local.tm_hour = 0;
    local.tm_min = 0;
    local.tm_sec = 0;
    local.tm_isdst = -1;
    return mktime(&local);
}
