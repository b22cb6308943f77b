#include <cstdio>
#include <cstdlib>

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

void print_help()
{
    t4mi_std_help();
    std::fprintf(stderr, " --oneshot\n");
}
