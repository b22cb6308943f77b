// A text test with a redirected weather directory and a monotonic clock that
// the test moves forward by hand.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "support/test_env.h"
#include "text/json_sources.h"
#include "text_fixture.h"

namespace t4test {

class weather_test : public text_test {
protected:
    std::string dir() const { return root.at("/run/tevrin/weather/kestrel"); }
    std::string path_of(const std::string& name) const { return dir() + "/" + name + ".json"; }

    // Writes the source file `name` with its modification time set to
    // `mtime_s` seconds and `mtime_ns` nanoseconds.
    void write_source(const std::string& name, const std::string& json, time_t mtime_s = 1700000000,
                      long mtime_ns = 0) const
    {
        write_file(path_of(name), json);
        set_mtime(path_of(name), mtime_s, mtime_ns);
    }

    static void set_mtime(const std::string& path, time_t s, long ns)
    {
        const timespec times[2] = {{s, ns}, {s, ns}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    // Moves the monotonic clock forward by `us`.
    void advance_us(int64_t us)
    {
        monotonic_offset += us;
        t4mi_clock_set_monotonic_offset_us(monotonic_offset);
    }

    // Runs `f` and returns what it wrote to standard error.
    template <typename F>
    static std::string stderr_of(F&& f)
    {
        ::testing::internal::CaptureStderr();
        f();
        return ::testing::internal::GetCapturedStderr();
    }

    std::string loaded_line(const std::string& name) const
    {
        return "Loaded json '" + name + "' from '" + path_of(name) + "'\n";
    }
    std::string checking_line(const std::string& name) const
    {
        return "Checking json '" + name + "' from '" + path_of(name) + "'\n";
    }

    fixed_root root;
    int64_t monotonic_offset = 0;
};

} // namespace t4test
