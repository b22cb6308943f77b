// The access cache, and another process mapping a buffer through its
// descriptor handed over a socket.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/t4mi_globals.h"
#include "platform/tnb.h"
#include "support/frame_env.h"

namespace {

constexpr uint64_t page = 4096;

TEST(AccessCache, FetchMapsEachBufferOnceAndChecksTheRange)
{
    t4test::shared_buffer_session session(16 * page);
    const int id = image_tnb_buffer;
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(nullptr, id, 0, 16, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id + 1, 0, 16, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 0, 0, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 16 * page - 8, 9, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 16 * page, 1, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 0u);

    auto* a = static_cast<uint8_t*>(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 0, 16 * page, 4));
    auto* b = static_cast<uint8_t*>(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 3 * page + 5, 8, 1));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b - a, ptrdiff_t(3 * page + 5));
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 1u);
    a[3 * page + 5] = 0x42;
    EXPECT_EQ(b[0], 0x42);
}

TEST(AccessCache, DropUnmapsAndIdleEntriesAreCleanedUp)
{
    t4test::shared_buffer_session session(16 * page);
    const int id = image_tnb_buffer;
    ASSERT_NE(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 0, page, 4), nullptr);
    t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);  // just fetched: kept
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 1u);

    // Ten seconds and a bit without a fetch: the entry goes.
    t4mi_clock_set_monotonic_offset_us(int64_t(T4MI_ACCESS_CACHE_IDLE_US) + 1000000);
    t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);
    t4mi_clock_set_monotonic_offset_us(0);
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 0u);

    // Fetching again maps again; dropping the buffer unmaps at once.
    ASSERT_NE(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 0, page, 4), nullptr);
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 1u);
    tnb_default_buffer_drop();
    EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 0u);
    EXPECT_EQ(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, 0, page, 4), nullptr);
    t4mi_global_access_cache_cleanup_idle(nullptr);
}

TEST(AccessCache, ABufferThatHoldsFramesOrWarmSlotsStaysMappedHoweverIdle)
{
    t4test::shared_buffer_session session(16 * page);
    const int id = image_tnb_buffer;
    auto idle_cleanup = [] {
        t4mi_clock_set_monotonic_offset_us(int64_t(T4MI_ACCESS_CACHE_IDLE_US) + 1000000);
        t4mi_global_access_cache_cleanup_idle(t4mi_acc_cache);
        t4mi_clock_set_monotonic_offset_us(0);
    };

    // A live allocation: its pages would only fault in again.
    {
        t4test::frame_cache_budget budget(8 * page);
        tnb_alloc_record r{};
        ASSERT_TRUE(tnb_malloc(&r, 2 * page, "V%lld", 1ll));
        ASSERT_NE(t4mi_global_access_cache_quickfetch(t4mi_acc_cache, id, r.offset, 2 * page, 4), nullptr);
        idle_cleanup();
        EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 1u) << "a live frame's buffer was unmapped";

        // Freed with a budget, it stays as a warm slot: still mapped.
        tnb_free(&r);
        ASSERT_GT(tnb_warm_bytes(), 0u);
        idle_cleanup();
        EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 1u) << "a warm slot's buffer was unmapped";

        // Nothing left in it: the idle entry goes.
        tnb_warm_trim(0);
        ASSERT_EQ(tnb_warm_bytes(), 0u);
        idle_cleanup();
        EXPECT_EQ(t4mi_global_access_cache_entry_count(t4mi_acc_cache), 0u);
    }
}

// Sends `fd` with SCM_RIGHTS, as the control socket hands buffers to clients.
bool send_fd(int sock, int fd)
{
    char byte = 'B';
    iovec iov{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof(int));
    return sendmsg(sock, &msg, 0) == 1;
}

int receive_fd(int sock)
{
    char byte = 0;
    iovec iov{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    if (recvmsg(sock, &msg, 0) != 1)
        return -1;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    if (c == nullptr || c->cmsg_type != SCM_RIGHTS)
        return -1;
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(c), sizeof(int));
    return fd;
}

// The child: gets the descriptor, maps it afresh, checks the bytes the
// parent wrote at (offset, length), and writes a reply byte behind them.
// Exit codes name the step that failed.
[[noreturn]] void client_process(int sock, int inherited_fd, uint64_t offset, uint64_t length)
{
    close(inherited_fd);  // only the descriptor that came over the socket counts
    const int fd = receive_fd(sock);
    if (fd < 0)
        _exit(2);
    struct stat st {};
    if (fstat(fd, &st) != 0 || (st.st_mode & 07777) != 0600)
        _exit(3);
    void* m = mmap(nullptr, size_t(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED)
        _exit(4);
    auto* bytes = static_cast<uint8_t*>(m) + offset;
    for (uint64_t i = 0; i < length; ++i)
        if (bytes[i] != uint8_t(i * 7 + 1))
            _exit(5);
    bytes[length] = 0xA5;
    _exit(0);
}

TEST(SharedBuffer, AnotherProcessMapsTheBufferThroughItsDescriptor)
{
    t4test::shared_buffer_session session(32 * page);
    tnb_alloc_record r;
    ASSERT_TRUE(tnb_malloc(&r, page + 1, "V%lld", 1ll));  // push the next one off 0
    tnb_alloc_record frame;
    const uint64_t length = 3 * page + 17;
    ASSERT_TRUE(tnb_malloc(&frame, length + 1, "V%lld", 2ll));
    ASSERT_EQ(frame.offset, 2 * page);
    auto* p = static_cast<uint8_t*>(
        t4mi_global_access_cache_quickfetch(t4mi_acc_cache, frame.buffer, frame.offset, length + 1, 4));
    ASSERT_NE(p, nullptr);
    for (uint64_t i = 0; i < length; ++i)
        p[i] = uint8_t(i * 7 + 1);
    p[length] = 0;

    int socks[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, socks), 0);
    const int buffer_fd = tnb_buffer_fd(frame.buffer);
    ASSERT_GE(buffer_fd, 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(socks[0]);
        client_process(socks[1], buffer_fd, frame.offset, length);
    }
    close(socks[1]);
    ASSERT_TRUE(send_fd(socks[0], buffer_fd));
    close(socks[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // Same memory, not a copy: the child's write shows in our mapping.
    EXPECT_EQ(p[length], 0xA5);
}

} // namespace
