#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <unistd.h>

#include "main/main_globals.h"
#include "main/process.h"
#include "platform/t4mi_globals.h"

namespace {

TEST(SignalHandler, CountsSignalsAndAbortsOnTheTwentieth)
{
    DIE4 = 0;
    for (int i = 1; i <= 19; i++) {
        die_signal_handler(SIGTERM);
        EXPECT_EQ(DIE4, i);
    }
    EXPECT_DEATH(die_signal_handler(SIGINT), "");
    DIE4 = 0;
}

TEST(PipeAndHangupHandlers, SigpipeIsIgnoredAndSighupOnlyAsksForAReload)
{
    struct sigaction old_pipe {}, old_hup {};
    sigaction(SIGPIPE, nullptr, &old_pipe);
    sigaction(SIGHUP, nullptr, &old_hup);
    install_pipe_and_hangup_handlers();
    reload_signalled = 0;
    // A write to a pipe nobody reads fails instead of ending the process.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    EXPECT_EQ(write(fds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    ASSERT_EQ(raise(SIGHUP), 0);
    EXPECT_EQ(reload_signalled, 1);
    EXPECT_EQ(DIE4, 0); // not a request to stop
    reload_signalled = 0;
    sigaction(SIGPIPE, &old_pipe, nullptr);
    sigaction(SIGHUP, &old_hup, nullptr);
}

} // namespace
