#include "frames/reader.h"

#include "frames/client_context.h"
#include "platform/t4mi_globals.h"

my_AVIVideoRandomReader::my_AVIVideoRandomReader() = default;
my_AVIVideoRandomReader::~my_AVIVideoRandomReader() = default;

int my_AVIVideoRandomReader::background_work() { return 0; }

void my_AVIVideoRandomReader::expire_frames(uint64_t limit_us) { frame_manager.expire_frames(limit_us); }

void my_AVIVideoRandomReader::release_cache()
{
    for (const auto& [id, base] : t4mi_client_contexts.all()) {
        auto* ctx = dynamic_cast<scrolling_text_client_context*>(base.get());
        if (ctx != nullptr && ctx->reader != nullptr)
            ctx->reader->frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    }
}

scrolling_text_videorandomreader::~scrolling_text_videorandomreader() { frame_manager.flush_all_frames(); }

void scrolling_text_videorandomreader::release_cache() { frame_manager.flush_unused_frames(FLUSH_EVERYTHING); }
