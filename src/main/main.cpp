// The entry point of t4mi_scrolltext: start-up, the serve loop, the ordered
// shut-down. Start-up lives in the program library so that tests can run it
// in their own process.
#include "main/process.h"

int main(int argc, char** argv)
{
    install_pipe_and_hangup_handlers();
    if (int status = start_up(argc, argv); status >= 0)
        return status;
    serve_loop();
    return shut_down();
}
