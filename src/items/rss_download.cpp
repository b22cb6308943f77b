// The feed download: starting, supervising and reaping the curl child.
#include "items/rss_download.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "items/scroll_settings.h"
#include "platform/clock.h"
#include "platform/fixed_paths.h"
#include "platform/t4mi_assert.h"
#include "platform/t4mi_globals.h"

namespace {
constexpr uint64_t DOWNLOAD_TIMEOUT_US = 300000000; // 5 minutes
constexpr uint64_t TERM_REPEAT_US = 5000000;        // SIGTERM again every 5 s
// The kernel ends a child that hangs even after the SIGTERMs.
constexpr unsigned CHILD_ALARM_S = 310;

// In the child, after fork: change to the metadata directory, drop a stale
// partial file and become the downloader. Never returns.
[[noreturn]] void exec_downloader(const char* program, const char* const argv[])
{
    if (fchdir(t4mi_meta->meta_name_fd) != 0)
        _exit(1);
    // Whatever is at the name goes, a planted link included; the directory is
    // ours alone (start-up checks it), so nobody else can put one back before
    // the downloader creates the file.
    unlink("rss.xml.part");
    alarm(CHILD_ALARM_S);
    // The server ignores SIGPIPE; an ignored signal would stay ignored across exec.
    signal(SIGPIPE, SIG_DFL);
    execv(program, const_cast<char* const*>(argv));
    _exit(1);
}

// Stops an overdue child, reaps a finished one and puts its feed in place.
bool supervise_download(uint64_t now)
{
    if (download_deadline <= now) {
        std::fprintf(stderr, "Download timeout\n");
        kill(download_pid, SIGTERM);
        download_deadline += TERM_REPEAT_US;
        if (download_deadline <= now)
            download_deadline = now + TERM_REPEAT_US;
    }
    int status = 0;
    const pid_t reaped = waitpid(download_pid, &status, WNOHANG);
    if (reaped == 0)
        return feed_changed;
    if (reaped < 0) {
        // Already gone (reaped elsewhere): forget it rather than signal a pid
        // that may have been reused. Other errors are retried next turn.
        if (errno == ECHILD)
            download_pid = -1;
        return feed_changed;
    }
    download_pid = -1;
    // A failed or killed download leaves "rss.xml" as it was.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        const int dir = t4mi_meta ? t4mi_meta->meta_name_fd : -1;
        if (renameat(dir, "rss.xml.part", dir, "rss.xml") == 0) {
            feed_changed = 1;
            return true;
        }
    }
    return feed_changed;
}
} // namespace

bool rss_feed_changed()
{
    const uint64_t now = monotonic_clock_us();
    if (feed_url.empty())
        return false;
    const uint64_t due = feed_last_fetch + uint64_t(feed_interval);
    if (feed_last_fetch != 0 && due > now) {
        if (download_pid < 0)
            return feed_changed;
        return supervise_download(now);
    }
    std::fprintf(stderr, "Time to update RSS (%.3f -> %.3f)\n", double(now) / 1e6, double(due) / 1e6);
    if (download_pid >= 0)
        return supervise_download(now);

    // Built before fork, so that the child only changes directory and execs.
    const std::string program = t4mi_fixed_path(T4MI_DOWNLOADER_PATH);
    const char* const argv[] = {
        "/usr/bin/curl", "-o", "rss.xml.part", "--fail", "--max-redirs", "19", "--location",
        "--progress-bar", "--insecure", "--", feed_url.c_str(), nullptr,
    };
    download_deadline = now + DOWNLOAD_TIMEOUT_US;
    const pid_t pid = fork();
    if (pid == 0) {
        T4MI_ASSERT(t4mi_meta != NULL);
        T4MI_ASSERT(t4mi_meta->meta_name_fd >= 0);
        exec_downloader(program.c_str(), argv);
    }
    if (pid < 0)
        std::fprintf(stderr, "fork(): %s\n", std::strerror(errno));
    else
        download_pid = pid;
    // One download per slot: a process paused over several intervals fetches
    // once and is next due an interval after now, not once per missed slot.
    feed_last_fetch = std::max(feed_last_fetch + uint64_t(feed_interval), now);
    if (pid < 0)
        return feed_changed;
    return supervise_download(now);
}
