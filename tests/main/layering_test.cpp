// The layers of the source tree: the process frame (src/main/) sits on top,
// and nothing below it reaches up into it; the platform stands alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// "dir/file.h: line" for every #include "<folder>/..." in src/<dir>/.
std::vector<std::string> includes_of(const std::string& dir, const std::string& folder)
{
    std::vector<std::string> found;
    const std::regex pattern("^\\s*#\\s*include\\s*\"" + folder + "/");
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(T4MI_SOURCE_DIR) / "src" / dir)) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (std::regex_search(line, pattern))
                found.push_back(dir + "/" + entry.path().filename().string() + ": " + line);
    }
    return found;
}

TEST(Layering, NothingBelowTheProcessFrameIncludesIt)
{
    for (const char* dir : {"platform", "items", "text", "fonts", "frames"})
        EXPECT_EQ(includes_of(dir, "main"), std::vector<std::string>{}) << dir;
}

TEST(Layering, ThePlatformIncludesOnlyItself)
{
    for (const char* folder : {"main", "items", "text", "fonts", "frames"})
        EXPECT_EQ(includes_of("platform", folder), std::vector<std::string>{}) << folder;
}

} // namespace
