#include "rss_fixture.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/t4mi_globals.h"

namespace rss_test {

stderr_capture::stderr_capture()
{
    path = dir / "stderr.txt";
    std::fflush(stderr);
    saved_fd = dup(2);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    dup2(fd, 2);
    close(fd);
}

stderr_capture::~stderr_capture()
{
    std::fflush(stderr);
    dup2(saved_fd, 2);
    close(saved_fd);
}

std::string stderr_capture::text() const
{
    std::fflush(stderr);
    return t4test::read_file(path);
}

int count_of(const std::string& haystack, const std::string& needle)
{
    int n = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + needle.size()))
        n++;
    return n;
}

std::string with_separators(const std::string& spelled)
{
    // Copied piece by piece into a new string rather than replaced in place:
    // GCC 12 at -O3 takes std::string::replace here for an overlapping copy
    // (-Wrestrict) that cannot happen.
    const std::string mark = "<US>";
    std::string out;
    size_t from = 0;
    for (size_t at = spelled.find(mark); at != std::string::npos; at = spelled.find(mark, from)) {
        out.append(spelled, from, at - from);
        out += '\x1f';
        from = at + mark.size();
    }
    out.append(spelled, from, std::string::npos);
    return out;
}

void reset_rss_state()
{
    scroll_settings = scroll_settings_record{};
    feed_url.clear();
    feed_interval = 900000000;
    feed_last_fetch = 0;
    feed_changed = 0;
    download_pid = -1;
    download_deadline = 0;
    t4mi_clock_set_monotonic_offset_us(0);
    t4mi_clock_set_wall_offset_us(0);
    t4mi_clock_unpin_wall();
    t4mi_clock_unpin_monotonic();
}

void rss_item_test::SetUp()
{
    reset_rss_state();
    item_path = dir / "item.rss";
    meta_dir = dir / "item.meta";
    t4test::make_dirs(meta_dir);
    t4test::write_file(item_path, "#Tevrin4RSS\n");
    record.file_fd = open(item_path.c_str(), O_RDONLY | O_CLOEXEC);
    record.meta_name_fd = open(meta_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(record.file_fd, 0);
    ASSERT_GE(record.meta_name_fd, 0);
    saved_meta = t4mi_meta;
    t4mi_meta = &record;
}

void rss_item_test::TearDown()
{
    if (download_pid > 0) {
        kill(download_pid, SIGKILL);
        waitpid(download_pid, nullptr, 0);
    }
    t4mi_meta = saved_meta;
    close(record.file_fd);
    close(record.meta_name_fd);
    reset_rss_state();
}

void rss_item_test::write_item(const std::string& content) { t4test::write_file(item_path, content); }

void rss_item_test::write_feed(const std::string& content) { t4test::write_file(meta_path("rss.xml"), content); }

} // namespace rss_test
