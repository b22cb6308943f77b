#include "support/frame_env.h"

#include "platform/t4mi_globals.h"
#include "platform/tnb.h"

namespace t4test {

shared_buffer_session::shared_buffer_session(uint64_t budget) : previous_budget(tnb_total)
{
    tnb_alloc_init();
    tnb_total = budget;
    if (t4mi_acc_cache == nullptr)
        t4mi_acc_cache = t4mi_global_access_cache_create();
    loaded = t4mi_join_tnb_domain() == 0 && tnb_default_buffer_load() == 0;
}

shared_buffer_session::~shared_buffer_session()
{
    tnb_alloc_freeall();
    tnb_default_buffer_drop();
    t4mi_global_access_cache_destroy(t4mi_acc_cache);
    t4mi_acc_cache = nullptr;
    tnb_total = previous_budget;
}

frame_cache_budget::frame_cache_budget(uint64_t bytes) : previous(picture_cache_budget)
{
    picture_cache_budget = bytes;
}

frame_cache_budget::~frame_cache_budget() { picture_cache_budget = previous; }

} // namespace t4test
