// The RSS item loader: the item file's "url", "interval" and settings lines,
// then the text of the downloaded feed.
#include "items/rss_loader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "items/item_file.h"
#include "items/rss_feed_text.h"
#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/fd_owner.h"
#include "platform/t4mi_globals.h"
#include "platform/text_helpers.h"

namespace {
constexpr int64_t DEFAULT_FEED_INTERVAL_US = 900000000; // 15 minutes
constexpr long MAX_FEED_INTERVAL_S = 86400;
// An access time that maps further ahead than this is not believed.
constexpr uint64_t MAX_FETCH_AHEAD_US = 3000000000; // 50 minutes

class flock_guard {
public:
    explicit flock_guard(int fd) : fd(fd) { flock(fd, LOCK_EX); }
    ~flock_guard() { flock(fd, LOCK_UN); }
    flock_guard(const flock_guard&) = delete;
    flock_guard& operator=(const flock_guard&) = delete;

private:
    int fd;
};

// Reads the item file's lines into the settings and `feed_interval`; returns
// the feed address ("url"), empty when the file names none.
std::string parse_rss_item_lines(const char* buffer)
{
    pending_opacities opacities;
    std::string url;
    const char* p = buffer;
    while (*p != '\0') {
        const char* lf = std::strchr(p, '\n');
        const char* end = lf ? lf : p + std::strlen(p);
        const name_value_pair pair = divide_name_equ_value_pair(std::string_view(p, size_t(end - p)));
        p = lf ? lf + 1 : end;
        if (!pair.name || !pair.value || pair.name->empty())
            continue;
        const std::string& name = *pair.name;
        const char* value = pair.value->c_str();
        if (name == "url") {
            url = *pair.value;
        } else if (name == "interval") {
            const long seconds = std::clamp(std::strtol(value, nullptr, 0), 1L, MAX_FEED_INTERVAL_S);
            feed_interval = int64_t(seconds) * 1000000;
        } else if (name[0] == '#') {
            apply_scroll_setting(name.substr(1), value, /*rss=*/true, opacities);
        }
    }
    fold_opacities(opacities);
    return url;
}

// Reads the feed file into the buffer the parser is handed whole. Bytes left
// behind by a longer earlier feed are cleared, so that the parser always sees
// NULs after the data, as on the first load.
const char* read_feed_file(int fd)
{
    static char buffer[RSS_FEED_BUFFER_BYTES];
    static size_t previous = 0;
    size_t have = 0;
    while (have < size_t(RSS_FEED_MAX_BYTES)) {
        const ssize_t n = read(fd, buffer + have, size_t(RSS_FEED_MAX_BYTES) - have);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) // the end, an error, or (a pipe) nothing there yet
            break;
        have += size_t(n);
    }
    if (previous > have)
        std::memset(buffer + have, 0, previous - have);
    buffer[have] = '\0';
    previous = have;
    return buffer;
}

// Maps the feed file's access time (the last download, as the file records
// it) onto the monotonic clock, so that a restarted process does not fetch
// again before the interval is up. 0 when the mapped time is not believable.
uint64_t last_fetch_from_access_time(int fd)
{
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return 0;
    const int64_t atime_us = int64_t(st.st_atim.tv_sec) * 1000000 + st.st_atim.tv_nsec / 1000;
    const int64_t wall_now = gettimeofday_us();
    const uint64_t mono_now = monotonic_clock_us();
    // Unsigned on purpose: an access time from before the monotonic clock's
    // start wraps to a huge value, which the test below turns into 0.
    const uint64_t mapped = uint64_t(atime_us - wall_now) + mono_now;
    return mapped > mono_now + MAX_FETCH_AHEAD_US ? 0 : mapped;
}
} // namespace

void load_rss_feed()
{
    feed_changed = 0;
    const int fd = t4mi_meta ? t4mi_meta->file_fd : -1;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fprintf(stderr, "Failed to fstat()\n");
        return;
    }
    const flock_guard lock(fd);
    scroll_settings.file_mtime = int64_t(st.st_mtime);
    const char* item = read_item_file(fd);
    reset_scroll_settings(/*rss=*/true);
    feed_interval = DEFAULT_FEED_INTERVAL_US;
    const std::string url = parse_rss_item_lines(item);
    normalise_loaded_settings();
    scroll_settings.static_ = 0; // a feed always scrolls, whatever its speed

    // A new address is fetched on the next loop turn. The first address of
    // the process (feed_url still empty) is the restart case, where the feed
    // file's access time below tells when it was last fetched; a later change
    // is not, as the file on disk then belongs to the old address.
    const bool address_replaced = url != feed_url && !feed_url.empty();
    if (url != feed_url) {
        feed_last_fetch = 0;
        feed_url = url;
    }

    // Non-blocking, so that something other than a file at that name (a pipe
    // nobody writes to) cannot hold up the serve loop; a file reads as ever.
    const fd_owner feed(openat(t4mi_meta->meta_name_fd, "rss.xml", O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (feed.get() < 0) {
        std::fprintf(stderr, "Unable to open RSS\n");
        return;
    }
    const char* buffer = read_feed_file(feed.get());
    if (feed_last_fetch == 0 && !address_replaced)
        feed_last_fetch = last_fetch_from_access_time(feed.get());

    scroll_settings.text.clear();
    scroll_settings.text = rss_text_from_buffer(buffer, RSS_FEED_BUFFER_BYTES);
}
