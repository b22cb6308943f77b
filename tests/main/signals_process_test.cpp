// The real program under the signals and failures of an ordinary day on air:
// its log reader goes away, SIGHUP asks for a reload, status.json cannot be
// written; and what status.json says once the process has gone.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "main/serving_fixture.h"

namespace fs = std::filesystem;

namespace {

using t4test::picture_settings;
using t4test::plane_copy;

class ServingProcessSignals : public t4test::serving_process_test {};

TEST_F(ServingProcessSignals, AClosedLogPipeCostsTheLinesNotTheServer)
{
    int log_pipe[2];
    ASSERT_EQ(pipe2(log_pipe, O_CLOEXEC), 0);
    proc = std::make_unique<t4test::serving_process>(
        t4test::scrolltext_binary(), std::vector<std::string>{"--file", item_path, "--metadir", dir / "meta"},
        fonts.env(), log_pipe[1]);
    close(log_pipe[1]);
    ASSERT_TRUE(proc->wait_ready(dir / "meta"));
    close(log_pipe[0]); // the reader of its standard error goes away

    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16)));
    // A reload makes the server write "Text item changed" to the dead pipe.
    ASSERT_TRUE(c->reload()) << c->error();
    const plane_copy first = served(*c, 0);
    EXPECT_TRUE(first.any_alpha());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(proc->running());
    EXPECT_EQ(t4test::first_difference(served(*c, 0), first), "");
    c.reset();
    // Shut-down writes its report to the dead pipe too, and still exits 0.
    int status = -2;
    EXPECT_TRUE(proc->stop(SIGTERM, 15000, &status));
    EXPECT_EQ(status, 0);
}

TEST_F(ServingProcessSignals, SighupReloadsTheItem)
{
    start();
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16)));
    const plane_copy red = served(*c, 0);

    // A green background instead of the red one, with the modification time
    // put back: the watch alone would never see this edit.
    struct stat before {};
    ASSERT_EQ(stat(item_path.c_str(), &before), 0);
    std::string green = ITEM;
    green.replace(green.find("ff0000"), 6, "00ff00");
    t4test::write_file(item_path, green);
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, item_path.c_str(), times, 0), 0);

    ASSERT_EQ(kill(proc->pid(), SIGHUP), 0);
    ASSERT_NE(wait_for_err("SIGHUP: reloading the item\nText item changed\n", 5000), std::string::npos)
        << proc->err();
    EXPECT_TRUE(proc->running());
    // Frame 1: frame 0 may still come from the frame cache.
    const plane_copy after = served(*c, 1);
    // Red (Y 81) became green (Y 144): studio-range BT.601 of the pure colours.
    EXPECT_EQ(red.y.at(0), 81);
    EXPECT_EQ(after.y.at(0), 144);
    c.reset();
    stop();
}

class ServingProcessStatusFile : public t4test::serving_process_test {
protected:
    std::string status_path() { return dir / "meta/status.json"; }
};

TEST_F(ServingProcessStatusFile, ReadyWhileServingAndGoneAfterSigterm)
{
    start();
    const auto status = nlohmann::json::parse(t4test::read_file(status_path()));
    EXPECT_EQ(status["ready"], 1);
    EXPECT_EQ(status["ready_text"], "Ready to serve data");
    EXPECT_EQ(status["percent"], 100);
    EXPECT_EQ(status["pid"], int(proc->pid()));
    EXPECT_EQ(status["socket"], proc->socket_path());
    stop();
    EXPECT_FALSE(fs::exists(fs::symlink_status(status_path())));
}

TEST_F(ServingProcessStatusFile, GoneAfterOneshot)
{
    const auto r = t4test::run_process(t4test::scrolltext_binary(),
                                       {"--file", item_path, "--metadir", dir / "meta", "--oneshot"}, fonts.env());
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.err.find("Oneshot\n"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(fs::symlink_status(status_path())));
}

TEST_F(ServingProcessStatusFile, GoneAfterAutoShutdown)
{
    start({"--auto-shutdown", "1"});
    int status = -2;
    ASSERT_TRUE(proc->wait_exit(15000, &status));
    EXPECT_EQ(status, 0);
    EXPECT_NE(proc->err().find("Auto terminate: "), std::string::npos) << proc->err();
    EXPECT_FALSE(fs::exists(fs::symlink_status(status_path())));
}

TEST_F(ServingProcessStatusFile, AStatusFileThatCannotBeWrittenIsReportedAndServingGoesOn)
{
    // A directory where the file should go: every rename onto it fails.
    t4test::make_dirs(status_path());
    ASSERT_EQ(chmod((dir / "meta").c_str(), 0700), 0);
    proc = std::make_unique<t4test::serving_process>(
        t4test::scrolltext_binary(), std::vector<std::string>{"--file", item_path, "--metadir", dir / "meta"},
        fonts.env());
    auto c = std::make_unique<t4mi_client>();
    c->timeout_ms = 10000;
    // No readiness to wait for: the socket answering is the sign.
    ASSERT_TRUE(c->connect(dir / "meta/control.sock", 20000)) << c->error() << proc->err();
    ASSERT_TRUE(c->send_settings(picture_settings(64, 16)));
    EXPECT_TRUE(served(*c, 0).any_alpha());
    const std::string warning = "WARNING: Cannot write status file '" + status_path() + "': Is a directory\n";
    const std::string err = proc->err();
    ASSERT_NE(err.find(warning), std::string::npos) << err;
    EXPECT_EQ(err.find(warning, err.find(warning) + 1), std::string::npos) << "reported once: " << err;
    c.reset();
    stop();
    EXPECT_TRUE(fs::is_directory(status_path())); // not ours to remove
}

} // namespace
