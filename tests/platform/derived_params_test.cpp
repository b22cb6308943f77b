#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/args.h"
#include "platform/derived_params.h"
#include "platform/metadata.h"
#include "platform/sliding_window.h"
#include "platform/t4mi_globals.h"
#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

class Derived : public ::testing::Test {
protected:
    void TearDown() override
    {
        t4mi_free_all();
        t4mi_reset_standard_switches();
    }
    t4test::temp_dir dir;
};

TEST_F(Derived, MetadataDirectoryAndSocketComeFromTheItemPath)
{
    t4test::write_file(dir / "news.txt", "#Tevrin4ScrollText\n");
    t4mi_file = dir / "news.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    EXPECT_EQ(t4mi_file_metadir, dir / ".news.txt.t4mi");
    EXPECT_EQ(t4mi_sock, dir / ".news.txt.t4mi/control.sock");
    struct stat st {};
    ASSERT_EQ(stat(t4mi_file_metadir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_NE(t4mi_meta, nullptr);
    EXPECT_GE(t4mi_meta->file_fd, 0);
    EXPECT_GE(t4mi_meta->dir_fd, 0);
    EXPECT_GE(t4mi_meta->meta_name_fd, 0);
    EXPECT_EQ(t4mi_meta->dir_path, dir.path());
    EXPECT_EQ(t4mi_meta->file_name, "news.txt");
    ASSERT_NE(t4mi_metadata, nullptr);
    EXPECT_EQ(t4mi_metadata->path, dir / ".news.txt.t4mi/metadata.json");
    EXPECT_FALSE(t4mi_metadata->loaded);
}

TEST_F(Derived, GivenDirectoriesAreCreatedAndKept)
{
    t4test::write_file(dir / "a.txt", "x");
    t4mi_file = dir / "a.txt";
    t4mi_file_metadir = dir / "deep/er/meta";
    t4mi_sock = dir / "s.sock";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    EXPECT_TRUE(fs::is_directory(dir / "deep/er/meta"));
    EXPECT_EQ(t4mi_sock, dir / "s.sock");
}

TEST_F(Derived, MissingItemFails)
{
    t4mi_file = dir / "missing.txt";
    EXPECT_NE(t4mi_standard_to_derived_params(), 0);
    EXPECT_EQ(t4mi_meta, nullptr);
}

TEST_F(Derived, MetadataRoundTripsAtomically)
{
    t4test::write_file(dir / "a.txt", "x");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    EXPECT_EQ(auto_generate_metadata_guid(t4mi_metadata), 1);
    EXPECT_EQ(auto_generate_metadata_guid(t4mi_metadata), 0); // already has one
    t4mi_video_streams = 1;
    t4mi_time_duration = 2147483647;
    t4mi_time_scale = {30000, 1001};
    t4mi_file_type = "text/plain";
    t4mi_standard_vars_to_metadata(t4mi_metadata);
    ASSERT_EQ(metadata_v4_metadata_context_write_metadata_to_file(t4mi_metadata, t4mi_meta, 0, nullptr), 0);
    EXPECT_FALSE(fs::exists(t4mi_metadata->path + ".tmp"));

    metadata_v4_metadata_context back;
    back.path = t4mi_metadata->path;
    ASSERT_EQ(metadata_v4_metadata_context_read(&back), 0);
    EXPECT_EQ(back.mime_type, "text/plain");
    EXPECT_EQ(back.guid, t4mi_metadata->guid);
    EXPECT_EQ(back.video_streams, 1);
    EXPECT_EQ(back.duration, 2147483647);
    EXPECT_EQ(back.time_scale_num, 30000);
    EXPECT_EQ(back.time_scale_den, 1001);

    // The stored type fills an empty type at the next derivation.
    t4mi_free_all();
    t4mi_file_type.clear();
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    EXPECT_EQ(t4mi_file_type, "text/plain");
}

TEST_F(Derived, UnreadableMetadataIsIgnored)
{
    t4test::write_file(dir / "a.txt", "x");
    t4test::write_file(dir / ".a.txt.t4mi/metadata.json", "{ not json");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    EXPECT_FALSE(t4mi_metadata->loaded);
    EXPECT_EQ(t4mi_file_type, "");
}

TEST_F(Derived, ReopeningTheItemFollowsAReplacedFile)
{
    t4test::write_file(dir / "a.txt", "old");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    t4test::write_file(dir / "a.txt.new", "new!");
    fs::rename(dir / "a.txt.new", dir / "a.txt");
    metadata_v4_context_close_the_file(t4mi_meta);
    EXPECT_EQ(t4mi_meta->file_fd, -1);
    ASSERT_EQ(metadata_v4_context_open_the_file(t4mi_meta), 0);
    char buf[8] = {};
    EXPECT_EQ(pread(t4mi_meta->file_fd, buf, sizeof buf, 0), 4);
    EXPECT_STREQ(buf, "new!");
}

TEST_F(Derived, StatusFileReportsProgressAndReadiness)
{
    t4test::write_file(dir / "a.txt", "x");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    t4mi_status_write(100, "");
    t4mi_ready_write(1, "Ready to serve data");
    const auto j = nlohmann::json::parse(t4test::read_file(t4mi_file_metadir + "/status.json"));
    EXPECT_EQ(j["percent"], 100);
    EXPECT_EQ(j["ready"], 1);
    EXPECT_EQ(j["ready_text"], "Ready to serve data");
    EXPECT_EQ(j["pid"], int(getpid()));
}

TEST_F(Derived, AMetadataDirectoryOthersMayWriteIsRefusedBeforeAnythingIsWritten)
{
    t4test::write_file(dir / "a.txt", "x");
    t4test::make_dirs(dir / "open");
    ASSERT_EQ(chmod((dir / "open").c_str(), 0777), 0);
    t4mi_file = dir / "a.txt";
    t4mi_file_metadir = dir / "open";
    t4mi_temp_clean_only = 1;
    t4test::write_file(dir / "open/left.tmp", "x");
    testing::internal::CaptureStderr();
    EXPECT_EQ(t4mi_standard_to_derived_params(), T4MI_DERIVED_REFUSED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Refusing metadata directory '" + (dir / "open") + "': it is writable by group or others (mode 0777)\n");
    EXPECT_EQ(t4mi_meta, nullptr);
    EXPECT_TRUE(fs::exists(dir / "open/left.tmp"));
}

TEST_F(Derived, AFifoItemIsRefusedAndNoDirectoryIsMade)
{
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    t4mi_file = dir / "pipe";
    testing::internal::CaptureStderr();
    EXPECT_EQ(t4mi_standard_to_derived_params(), T4MI_DERIVED_REFUSED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Refusing item file '" + (dir / "pipe") + "': it is a FIFO\n");
    EXPECT_FALSE(fs::exists(dir / ".pipe.t4mi"));
}

TEST_F(Derived, OurStatusFileGoesWithTheTearDownButAnotherOneStays)
{
    t4test::write_file(dir / "a.txt", "x");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    const std::string status = t4mi_file_metadir + "/status.json";
    t4mi_ready_write(1, "Ready to serve data");
    ASSERT_TRUE(fs::exists(status));
    t4mi_free_all();
    EXPECT_FALSE(fs::exists(status));

    // A file another process put in place after ours is not ours to remove.
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    t4mi_ready_write(1, "Ready to serve data");
    t4test::write_file(status + ".other", "{}");
    fs::rename(status + ".other", status);
    t4mi_free_all();
    EXPECT_EQ(t4test::read_file(status), "{}");
}

TEST_F(Derived, AStatusFileThatCannotBeWrittenIsReportedOnce)
{
    t4test::write_file(dir / "a.txt", "x");
    t4mi_file = dir / "a.txt";
    ASSERT_EQ(t4mi_standard_to_derived_params(), 0);
    const std::string status = t4mi_file_metadir + "/status.json";
    t4test::make_dirs(status);
    testing::internal::CaptureStderr();
    t4mi_status_write(100, "");
    t4mi_ready_write(1, "Ready to serve data");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: Cannot write status file '" + status + "': Is a directory\n");
    fs::remove(status);
    t4mi_ready_write(1, "Ready to serve data");
    EXPECT_TRUE(fs::is_regular_file(status));
}

TEST(SelfTest, Passes) { EXPECT_EQ(t4mi_self_test(), 0); }

TEST(SlidingWindow, MapsTheStartOfAShortFileWithZerosBeyondIt)
{
    t4test::temp_dir dir;
    t4test::write_file(dir / "f", "abcd");
    const int fd = open((dir / "f").c_str(), O_RDONLY);
    sliding_window_v4* w = sliding_window_v4_create_mmap(128, fd);
    ASSERT_NE(w, nullptr);
    ASSERT_NE(sliding_window_v4_mmap_lazy_lseek(w, 0, 128), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(w->buffer), 4), "abcd");
    EXPECT_EQ(w->buffer[4], 0);
    EXPECT_EQ(sliding_window_v4_mmap_lazy_lseek(w, 0, 129), 0); // larger than the window
    EXPECT_EQ(sliding_window_v4_destroy(w), nullptr);
    EXPECT_EQ(sliding_window_v4_create_mmap(128, -1), nullptr);
    close(fd);
}

} // namespace
