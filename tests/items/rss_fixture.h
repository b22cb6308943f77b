// Fixtures for the RSS item tests: an item file and its metadata directory
// installed as the framework's open item, the RSS state reset around each
// test, and standard error captured to a file.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/metadata.h"
#include "support/test_env.h"

namespace rss_test {

// Redirects file descriptor 2 to a file while it lives; child processes
// started meanwhile write there too.
class stderr_capture {
public:
    stderr_capture();
    ~stderr_capture();
    stderr_capture(const stderr_capture&) = delete;
    stderr_capture& operator=(const stderr_capture&) = delete;
    // Everything written so far.
    std::string text() const;

private:
    t4test::temp_dir dir;
    std::string path;
    int saved_fd = -1;
};

// Counts the non-overlapping occurrences of `needle` in `haystack`.
int count_of(const std::string& haystack, const std::string& needle);

// Byte 31 written visibly: the expected texts spell it "<US>".
std::string with_separators(const std::string& spelled);

// A temporary item: "<dir>/item.rss" open as t4mi_meta->file_fd and
// "<dir>/item.meta/" open as t4mi_meta->meta_name_fd. Resets the scroll
// settings, the RSS state and the test clocks before and after the test,
// and kills a downloader a test left running.
class rss_item_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Replaces the item file's content (same inode, so the open descriptor
    // reads the new content).
    void write_item(const std::string& content);
    // Writes "rss.xml" in the metadata directory.
    void write_feed(const std::string& content);
    std::string meta_path(const std::string& name) const { return meta_dir + "/" + name; }

    t4test::temp_dir dir;
    std::string item_path;
    std::string meta_dir;

private:
    t4mi_meta_record record;
    t4mi_meta_record* saved_meta = nullptr;
};

// Resets every RSS global, the scroll settings and the test clocks.
void reset_rss_state();

} // namespace rss_test
