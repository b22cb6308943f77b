// The entry point of t4mi_scrolltext: start-up, the serve loop, the ordered
// shut-down. Start-up lives in the program library so that tests can run it
// in their own process.
#include "main/process.h"
#include "platform/serve_stats.h"

int main(int argc, char** argv)
{
    install_pipe_and_hangup_handlers();
    // Keeps the last messages for "v4::stats"; what reaches descriptor 2 is unchanged.
    serve_stats_capture_stderr();
    if (int status = start_up(argc, argv); status >= 0)
        return status;
    serve_loop();
    return shut_down();
}
