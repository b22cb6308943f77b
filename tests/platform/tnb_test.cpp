// The shared frame-buffer domain: default buffer, allocations, budget,
// free space and the remaining-buffer report.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"

namespace {

constexpr uint64_t page = 4096;

std::string fd_target(int fd)
{
    char buf[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, size_t(n)) : std::string();
}

TEST(TnbDomain, PagesAreFourKilobytesOnThisPlatform)
{
    // The hand-worked offsets below assume 4 KiB pages (x86-64 and arm64 Debian).
    ASSERT_EQ(tnb_alloc_granularity(), page);
}

TEST(TnbDomain, JoinGivesTheDomain)
{
    ASSERT_EQ(t4mi_join_tnb_domain(), 0);
    EXPECT_NE(t4mi_tnb_domain(), nullptr);
    EXPECT_EQ(t4mi_join_tnb_domain(), 0);  // again: harmless
}

TEST(TnbDefaultBuffer, LoadHoldsAPrivateMemfdAndDropGivesItBack)
{
    tnb_alloc_init();
    const uint64_t saved = tnb_total;
    tnb_total = 10 * page + 123;  // rounded down to whole pages
    ASSERT_EQ(image_tnb_buffer_fd, -1);
    ASSERT_EQ(tnb_default_buffer_load(), 0);
    const int fd = image_tnb_buffer_fd;
    const int id = image_tnb_buffer;
    ASSERT_GE(fd, 0);
    EXPECT_GE(id, 1);
    EXPECT_LE(id, 65535);
    EXPECT_EQ(tnb_buffer_fd(id), fd);
    EXPECT_EQ(tnb_buffer_size(id), 10 * page);

    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);  // nobody else may open it
    EXPECT_EQ(st.st_uid, getuid());
    EXPECT_EQ(uint64_t(st.st_size), 10 * page);
    // Anonymous: no name in any file system.
    EXPECT_EQ(fd_target(fd).rfind("/memfd:", 0), 0u) << fd_target(fd);
    // Its size is sealed: a client cannot shrink it under the process.
    EXPECT_NE(ftruncate(fd, 0), 0);

    // Loading again keeps the same buffer.
    EXPECT_EQ(tnb_default_buffer_load(), 0);
    EXPECT_EQ(image_tnb_buffer_fd, fd);
    EXPECT_EQ(image_tnb_buffer, id);

    tnb_default_buffer_drop();
    EXPECT_EQ(image_tnb_buffer_fd, -1);
    EXPECT_EQ(image_tnb_buffer, -1);
    EXPECT_EQ(tnb_buffer_fd(id), -1);
    EXPECT_EQ(tnb_buffer_size(id), 0u);
    tnb_default_buffer_drop();  // again: harmless

    // A new buffer never reuses the id of the one before.
    ASSERT_EQ(tnb_default_buffer_load(), 0);
    EXPECT_NE(image_tnb_buffer, id);
    tnb_default_buffer_drop();
    tnb_total = saved;
}

TEST(TnbDefaultBuffer, NoBudgetNoBuffer)
{
    tnb_alloc_init();
    const uint64_t saved = tnb_total;
    tnb_total = page - 1;  // less than one page
    EXPECT_NE(tnb_default_buffer_load(), 0);
    EXPECT_EQ(image_tnb_buffer_fd, -1);
    tnb_alloc_record r;
    EXPECT_FALSE(tnb_malloc(&r, 16, "V%lld", 1ll));
    tnb_total = saved;
}

TEST(TnbMalloc, FillsTheRecordAndNamesTheAllocation)
{
    t4test::shared_buffer_session session(16 * page);
    ASSERT_TRUE(session.ready());
    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, 6144, "V%lld", 7ll));  // a page and a half: two pages reserved
    ASSERT_TRUE(tnb_malloc(&b, 100, "V%lld", -3ll));
    EXPECT_EQ(a.offset, 0u);
    EXPECT_EQ(a.length, 6144u);
    EXPECT_EQ(a.buffer, image_tnb_buffer);
    EXPECT_EQ(b.offset, 2 * page);  // page-aligned, right behind a's two pages
    EXPECT_EQ(b.length, 100u);
    EXPECT_EQ(tnb_alloc_live_count(), 2u);
    EXPECT_EQ(tnb_alloc_live_bytes(), 6244u);

    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "V7: 6144 bytes\nV-3: 100 bytes\n");

    tnb_free(&a);
    EXPECT_EQ(a.length, 0u);
    EXPECT_EQ(a.buffer, -1);
    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "V-3: 100 bytes\n");
    tnb_free(&b);
    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TnbMalloc, RefusesWithoutBufferOrSizeAndLeavesTheRecord)
{
    tnb_alloc_init();
    tnb_alloc_record r;
    r.offset = 77;
    EXPECT_FALSE(tnb_malloc(&r, 100, "V%lld", 1ll));  // no default buffer held
    EXPECT_EQ(r.offset, 77u);
    EXPECT_EQ(r.length, 0u);

    t4test::shared_buffer_session session(4 * page);
    EXPECT_FALSE(tnb_malloc(&r, 0, "V%lld", 1ll));
    EXPECT_FALSE(tnb_malloc(nullptr, 10, "V%lld", 1ll));
    EXPECT_FALSE(tnb_malloc(&r, 4 * page + 1, "V%lld", 1ll));  // larger than the buffer
    EXPECT_EQ(r.length, 0u);
    tnb_free(nullptr);
    tnb_free(&r);  // empty: nothing happens
}

TEST(TnbMalloc, BudgetCapsWhatIsReserved)
{
    // A budget of 10 pages: 6 + 4 pages fit, a further byte does not.
    t4test::shared_buffer_session session(10 * page);
    tnb_alloc_record six, five, four, one;
    ASSERT_TRUE(tnb_malloc(&six, 6 * page, "V%lld", 1ll));
    EXPECT_FALSE(tnb_malloc(&five, 5 * page, "V%lld", 2ll));
    ASSERT_TRUE(tnb_malloc(&four, 4 * page - 100, "V%lld", 3ll));  // rounds up to 4 pages
    EXPECT_FALSE(tnb_malloc(&one, 1, "V%lld", 4ll));
    tnb_free(&six);
    EXPECT_TRUE(tnb_malloc(&five, 5 * page, "V%lld", 2ll));
    EXPECT_EQ(five.offset, 0u);

    // Lowering the budget under a held buffer is honoured too: 9 of 10
    // pages are reserved, a budget of 9 pages leaves none.
    tnb_total = 9 * page;
    EXPECT_FALSE(tnb_malloc(&one, 1, "V%lld", 4ll));
    tnb_total = 10 * page;
    EXPECT_TRUE(tnb_malloc(&one, 1, "V%lld", 4ll));
}

TEST(TnbFree, FreedRangesCoalesceAndAreReusedFirstFit)
{
    t4test::shared_buffer_session session(8 * page);
    tnb_alloc_record a, b, c, d;
    ASSERT_TRUE(tnb_malloc(&a, page, "a"));
    ASSERT_TRUE(tnb_malloc(&b, page, "b"));
    ASSERT_TRUE(tnb_malloc(&c, page, "c"));
    EXPECT_EQ(c.offset, 2 * page);
    tnb_free(&a);
    tnb_free(&b);
    // Pages 0 and 1 merged: a two-page allocation lands at 0, not after c.
    ASSERT_TRUE(tnb_malloc(&d, 2 * page, "d"));
    EXPECT_EQ(d.offset, 0u);
    tnb_free(&c);
    tnb_free(&d);
    // Everything merged back into one range of the whole buffer.
    ASSERT_TRUE(tnb_malloc(&a, 8 * page, "all"));
    EXPECT_EQ(a.offset, 0u);
}

TEST(TnbFree, FreeallForgetsEverythingAndStaleRecordsStayHarmless)
{
    t4test::shared_buffer_session session(8 * page);
    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, 100, "V%lld", 1ll));
    ASSERT_TRUE(tnb_malloc(&b, 100, "V%lld", 2ll));
    const int id = image_tnb_buffer;
    tnb_alloc_freeall();
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    EXPECT_EQ(image_tnb_buffer, id);  // the buffer itself is still held

    // A new allocation takes a's place; freeing the stale a must not free it.
    tnb_alloc_record fresh;
    ASSERT_TRUE(tnb_malloc(&fresh, 100, "V%lld", 3ll));
    ASSERT_EQ(fresh.offset, a.offset);
    tnb_free(&a);
    EXPECT_EQ(a.length, 0u);
    EXPECT_EQ(tnb_alloc_live_count(), 1u);
    testing::internal::CaptureStderr();
    tnb_alloc_print_remaining_buffers();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "V3: 100 bytes\n");

    // Dropping the buffer forgets its allocations as well.
    tnb_default_buffer_drop();
    EXPECT_EQ(tnb_alloc_live_count(), 0u);
    tnb_free(&fresh);
    tnb_free(&b);
    EXPECT_EQ(b.length, 0u);
}

TEST(TnbFree, FreeallLetsThePagesGoAndTheyReadAsZero)
{
    t4test::shared_buffer_session session(8 * page);
    tnb_alloc_record a;
    ASSERT_TRUE(tnb_malloc(&a, page, "V%lld", 1ll));
    auto* p = static_cast<uint8_t*>(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, a.buffer, a.offset, page, 4));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x77, page);
    tnb_alloc_freeall();
    EXPECT_EQ(p[0], 0);
    EXPECT_EQ(p[page - 1], 0);
}

TEST(TnbFreeSpace, NullDomainHasNoneAndHeldBytesCountAsCached)
{
    EXPECT_EQ(tnb_context_free_space(nullptr, 1), 0u);
    t4test::shared_buffer_session session(64 * page);
    tnb_domain* d = t4mi_tnb_domain();
    ASSERT_NE(d, nullptr);
    EXPECT_GT(tnb_context_free_space(d, 0), 0u);

    tnb_alloc_record a, b;
    ASSERT_TRUE(tnb_malloc(&a, 10 * page, "a"));
    ASSERT_TRUE(tnb_malloc(&b, 1, "b"));  // reserves a whole page
    // The system's free memory moves between two reads; look for one pair
    // of reads that saw the same system state.
    bool matched = false;
    for (int attempt = 0; attempt < 50 && !matched; ++attempt) {
        const uint64_t without = tnb_context_free_space(d, 0);
        const uint64_t with = tnb_context_free_space(d, 1);
        matched = with - without == 11 * page;
    }
    EXPECT_TRUE(matched);
}

} // namespace
