// The frame reader: making room for a frame when the shared buffer is full,
// the release-cache operation over every client context, expiry.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frames/client_context.h"
#include "frames/frame_buffer.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"

namespace {

using params = my_AVIVideoRandomReader::common_codec_setup_yuv_params;
using call_log = std::vector<std::string>;

// 5 x 3 YUVA: 72 bytes of planes + 1024 = 1096 bytes, one page reserved.
params small_frame()
{
    params p;
    EXPECT_TRUE(my_AVIVideoRandomReader::common_codec_setup_yuv(5, 3, p));
    return p;
}

class logging_frame : public t4mi_video_frame {
public:
    logging_frame(int64_t n, call_log* log_) : t4mi_video_frame(n), log(log_) {}
    void release_allocation() override
    {
        log->push_back("frame release");
        t4mi_video_frame::release_allocation();
    }
    void release_idle_mappings() override
    {
        log->push_back("frame second release");
        t4mi_video_frame::release_idle_mappings();
    }
    call_log* log;
};

class logging_reader : public my_AVIVideoRandomReader {
public:
    explicit logging_reader(call_log* log_) : log(log_) {}
    void release_cache() override
    {
        log->push_back("reader release cache");
        frame_manager.flush_unused_frames(FLUSH_EVERYTHING);
    }
    call_log* log;
};

// Allocates frame `n` in `reader` and leaves it in its cache with `refs` holders.
void cache_frame(my_AVIVideoRandomReader& reader, int64_t n, int64_t refs)
{
    auto* f = new t4mi_video_frame(n);
    params p = small_frame();
    ASSERT_TRUE(reader.common_alloc_yuv_planar(f, p));
    f->refcount = refs;
    ASSERT_TRUE(reader.frame_manager.store_frame(uint64_t(n), 0, f));
}

TEST(ReaderAllocation, FullBufferIsRetriedAfterReleasingCachedFrames)
{
    // Room for two small frames (two pages).
    t4test::shared_buffer_session session(2 * 4096);
    call_log log;
    logging_reader reader(&log);
    cache_frame(reader, 1, 0);
    cache_frame(reader, 2, 0);
    ASSERT_EQ(tnb_alloc_live_count(), 2u);

    logging_frame frame(3, &log);
    params p = small_frame();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log, (call_log{"frame release", "reader release cache", "frame second release"}));
    EXPECT_EQ(reader.frame_manager.size(), 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 1u);
    EXPECT_EQ(frame.tnb_alloc.length, 1096u);
}

TEST(ReaderAllocation, SecondFailureWarnsAndLeavesTheFrameEmpty)
{
    t4test::shared_buffer_session session(2 * 4096);
    call_log log;
    logging_reader reader(&log);
    cache_frame(reader, 1, 1);  // both held by clients: nothing can go
    cache_frame(reader, 2, 1);

    logging_frame frame(3, &log);
    params p = small_frame();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(reader.common_alloc_yuv_planar(&frame, p));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING: Failed to allocate avframe\n");
    EXPECT_EQ(log, (call_log{"frame release", "reader release cache", "frame second release"}));
    EXPECT_EQ(frame.tnb_alloc.length, 0u);
    EXPECT_EQ(frame.planar_yuv, 1);  // marked before the attempt
    EXPECT_EQ(frame.width, 5);
    EXPECT_EQ(frame.height, 3);
    EXPECT_EQ(reader.frame_manager.size(), 2u);
}

TEST(ReaderAllocation, FirstAttemptThatFitsCallsNoRelease)
{
    t4test::shared_buffer_session session(2 * 4096);
    call_log log;
    logging_reader reader(&log);
    logging_frame frame(1, &log);
    params p = small_frame();
    EXPECT_TRUE(reader.common_alloc_yuv_planar(&frame, p));
    EXPECT_TRUE(log.empty());
}

// Client contexts registered the way the server makes them; removed again
// at the end of each test.
class ReaderContexts : public testing::Test {
protected:
    void SetUp() override
    {
        t4mi_client_contexts.set_context_factory(
            [](uint64_t id) -> t4mi_client_context* { return new scrolling_text_client_context(id); });
    }
    void TearDown() override { t4mi_client_contexts.destroy_all(); }
    scrolling_text_client_context* make_context(my_AVIVideoRandomReader* reader)
    {
        auto* ctx = static_cast<scrolling_text_client_context*>(t4mi_client_contexts.create());
        ctx->reader = reader;
        return ctx;
    }
};

TEST_F(ReaderContexts, ReleaseCacheFlushesUnusedFramesOfEveryContext)
{
    t4test::shared_buffer_session session(16 * 4096);
    auto* a = make_context(new my_AVIVideoRandomReader);
    auto* b = make_context(new my_AVIVideoRandomReader);
    make_context(nullptr);  // a context without a reader is passed over
    cache_frame(*a->reader, 1, 0);
    cache_frame(*a->reader, 2, 1);
    cache_frame(*b->reader, 1, 0);
    cache_frame(*b->reader, 7, 0);
    ASSERT_EQ(tnb_alloc_live_count(), 4u);

    a->reader->release_cache();
    EXPECT_EQ(a->reader->frame_manager.size(), 1u);  // the held frame 2 stays
    EXPECT_NE(a->reader->frame_manager.find_frame(2, 0), nullptr);
    EXPECT_EQ(b->reader->frame_manager.size(), 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 1u);
}

TEST_F(ReaderContexts, AFullBufferIsMadeRoomInFromAnotherContextsCache)
{
    t4test::shared_buffer_session session(2 * 4096);
    auto* a = make_context(new my_AVIVideoRandomReader);
    auto* b = make_context(new my_AVIVideoRandomReader);
    cache_frame(*a->reader, 1, 0);
    cache_frame(*a->reader, 2, 0);

    t4mi_video_frame frame(10);
    params p = small_frame();
    EXPECT_TRUE(b->reader->common_alloc_yuv_planar(&frame, p));
    EXPECT_EQ(a->reader->frame_manager.size(), 0u);
}

TEST_F(ReaderContexts, OwnCacheReaderFlushesOnlyItself)
{
    t4test::shared_buffer_session session(16 * 4096);
    auto* a = make_context(new scrolling_text_videorandomreader);
    auto* b = make_context(new my_AVIVideoRandomReader);
    cache_frame(*a->reader, 1, 0);
    cache_frame(*a->reader, 2, 1);
    cache_frame(*b->reader, 1, 0);

    a->reader->release_cache();
    EXPECT_EQ(a->reader->frame_manager.size(), 1u);
    EXPECT_EQ(b->reader->frame_manager.size(), 1u);  // untouched

    // Its destruction flushes every frame, held or not.
    delete a->reader;
    a->reader = nullptr;
    EXPECT_EQ(tnb_alloc_live_count(), 1u);  // only b's frame is left
}

TEST(Reader, ExpiresOnlyUnheldFramesUsedAtOrBeforeTheLimit)
{
    t4test::shared_buffer_session session(16 * 4096);
    my_AVIVideoRandomReader reader;
    cache_frame(reader, 1, 0);
    cache_frame(reader, 2, 0);
    cache_frame(reader, 3, 1);
    reader.frame_manager.find_frame(1, 0)->last_use = 1000;
    reader.frame_manager.find_frame(2, 0)->last_use = 3000;
    reader.frame_manager.find_frame(3, 0)->last_use = 1000;
    reader.expire_frames(2000);
    EXPECT_EQ(reader.frame_manager.find_frame(1, 0), nullptr);
    EXPECT_NE(reader.frame_manager.find_frame(2, 0), nullptr);
    EXPECT_NE(reader.frame_manager.find_frame(3, 0), nullptr);
    EXPECT_EQ(tnb_alloc_live_count(), 2u);
    EXPECT_EQ(reader.background_work(), 0);
}

TEST(Reader, KeepsItsDefaults)
{
    my_AVIVideoRandomReader reader;
    EXPECT_EQ(reader.time_scale, -1);
    EXPECT_EQ(reader.frame_duration, -1);
    EXPECT_EQ(reader.frame_manager.size(), 0u);
}

} // namespace
