#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "main/main_globals.h"
#include "main/process.h"
#include "platform/args.h"
#include "platform/t4mi_globals.h"

// Only counts: the serve loop notices at the top of its next turn. The
// twentieth signal means the loop is stuck, so it ends the process outright.
void die_signal_handler(int)
{
    DIE4 = DIE4 + 1;
    if (DIE4 > 19)
        std::abort();
}

namespace {
void hangup_signal_handler(int) { reload_signalled = 1; }
} // namespace

void install_pipe_and_hangup_handlers()
{
    struct sigaction sa {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &sa, nullptr);
    sa.sa_handler = hangup_signal_handler;
    sigaction(SIGHUP, &sa, nullptr);
}

void print_help()
{
    t4mi_std_help();
    std::fprintf(stderr, " --oneshot\n");
}
