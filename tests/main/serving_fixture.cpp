#include "items/item_types.h"
#include "main/serving_fixture.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>


namespace t4test {

// --- serving_process_test -------------------------------------------------------

void serving_process_test::SetUp()
{
    ASSERT_TRUE(fonts.ready());
    item_path = dir / "ticker.txt";
    write_file(item_path, ITEM);
}

void serving_process_test::start(const std::vector<std::string>& extra)
{
    std::vector<std::string> args = {"--file", item_path, "--metadir", dir / "meta"};
    args.insert(args.end(), extra.begin(), extra.end());
    proc = std::make_unique<serving_process>(scrolltext_binary(), args, fonts.env());
    ASSERT_TRUE(proc->wait_ready(dir / "meta")) << proc->err();
}

std::unique_ptr<t4mi_client> serving_process_test::client()
{
    auto c = std::make_unique<t4mi_client>();
    c->timeout_ms = 10000;
    if (!c->connect(proc->socket_path(), 5000)) {
        ADD_FAILURE() << c->error();
        return nullptr;
    }
    return c;
}

std::string serving_process_test::stop()
{
    int status = -2;
    EXPECT_TRUE(proc->stop(SIGTERM, 15000, &status));
    EXPECT_EQ(status, 0);
    return proc->err();
}

size_t serving_process_test::wait_for_err(const std::string& needle, int timeout_ms, size_t from,
                                          const std::function<void()>& meanwhile)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const size_t at = proc->err().find(needle, from);
        if (at != std::string::npos || std::chrono::steady_clock::now() > deadline)
            return at;
        if (meanwhile)
            meanwhile();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void serving_process_test::edit_item(const std::string& content)
{
    // In place, as an editor that keeps the inode would.
    const int fd = open(item_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
    close(fd);
    // Whole seconds ahead of the clock, a different second at every edit: the
    // watch would miss an edit in the same second as the load.
    const timespec times[2] = {{0, UTIME_OMIT}, {std::time(nullptr) + 100 + 10 * ++edits, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, item_path.c_str(), times, 0), 0);
}

nlohmann::json serving_process_test::stats(t4mi_client& c)
{
    comm_socket_v4_packet request;
    request.command = "v4::stats";
    t4mi_client_reply reply;
    EXPECT_TRUE(c.call(request, &reply)) << c.error();
    EXPECT_TRUE(reply.ok());
    return nlohmann::json::parse(std::string(reply.packet.data.data(), reply.packet.data_length()));
}

uint64_t serving_process_test::server_minor_faults() const
{
    std::ifstream in("/proc/" + std::to_string(proc->pid()) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream rest(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 10 && rest >> field; i++) {
    }
    return std::stoull(field);
}

plane_copy serving_process_test::served(t4mi_client& c, uint64_t n)
{
    t4mi_client_frame f;
    if (!c.request_frame(n, 0, 0, &f)) {
        ADD_FAILURE() << "frame " << n << ": " << c.error();
        return {};
    }
    plane_copy copy = copy_planes(f);
    EXPECT_TRUE(c.release_frame(n)) << c.error();
    return copy;
}

} // namespace t4test
