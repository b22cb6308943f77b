// The ordered shut-down that follows the serve loop.
#include <cstdio>
#include <fontconfig/fontconfig.h>

#include "fonts/font_catalogue.h"
#include "main/process.h"
#include "platform/client_context.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

int shut_down()
{
    close_t4mi_client_contexts();
    std::fprintf(stderr, "--------------REMAINING TNB BUFFER ALLOCATIONS----------------\n");
    std::fprintf(stderr, "** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH TNB MEMORY LEAKS\n");
    std::fprintf(stderr, "============================\n");
    tnb_alloc_print_remaining_buffers();
    std::fprintf(stderr, "--------------------------------------------------------------\n");
    std::fprintf(stderr, "Cleaning up\n");
    release_frame_buffers();
    std::fprintf(stderr, "Housekeeping shut down\n");
    std::fprintf(stderr, "Freeing cache %p\n", static_cast<void*>(t4mi_acc_cache));
    t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);
    clear_font_catalogue();
    tear_down();
    FcFini();
    return 0;
}
