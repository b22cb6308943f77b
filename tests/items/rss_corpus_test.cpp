// The feed corpus: each tests/items/data/rss_corpus/NAME.xml, installed as
// the downloaded feed, must give exactly the text of NAME.txt (see the
// corpus README for how those were worked out).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "items/rss_loader.h"
#include "items/scroll_settings.h"
#include "rss_fixture.h"

namespace {

namespace fs = std::filesystem;

const fs::path CORPUS = fs::path(T4MI_SOURCE_DIR) / "tests/items/data/rss_corpus";

std::vector<std::string> corpus_names()
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(CORPUS))
        if (entry.path().extension() == ".xml")
            names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

class RssCorpus : public rss_test::rss_item_test, public ::testing::WithParamInterface<std::string> {};

TEST_P(RssCorpus, GivesTheExpectedText)
{
    const std::string name = GetParam();
    std::string expected = t4test::read_file((CORPUS / (name + ".txt")).string());
    ASSERT_FALSE(expected.empty()) << "no expected text for " << name;
    expected.pop_back(); // the file's own final line feed
    write_item("#Tevrin4RSS\nurl=http://127.0.0.1/" + name + "\n");
    write_feed(t4test::read_file((CORPUS / (name + ".xml")).string()));
    scroll_settings.text = "previous";
    load_rss_feed();
    EXPECT_EQ(scroll_settings.text, rss_test::with_separators(expected));
}

INSTANTIATE_TEST_SUITE_P(Feeds, RssCorpus, ::testing::ValuesIn(corpus_names()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST(RssCorpusFiles, AreAllThere)
{
    EXPECT_GE(corpus_names().size(), 20u);
}

} // namespace
