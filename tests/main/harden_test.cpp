// --harden through the real program: the two hazards a client or a file can
// bring to a running server (an over-long field, a corrupt emoji image) cost
// a message, and frames keep flowing. (The third, a feed without a root, is
// tested on the document walk: the parser never produces one from bytes.)
#include <gtest/gtest.h>

#include <string>

#include "main/serving_fixture.h"
#include "platform/fixed_paths.h"

namespace {

using t4test::picture_settings;

class ServingProcessHarden : public t4test::serving_process_test {};

TEST_F(ServingProcessHarden, AFieldOver511BytesIsDroppedAndFramesFlow)
{
    start({"--harden"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16)));
    // Without --harden the next parse would never return.
    ASSERT_TRUE(c->set_text({{"text", "%{test;" + std::string(600, 'z') + "}%After"}})) << c->error();
    EXPECT_TRUE(served(*c, 0).any_alpha());
    EXPECT_NE(wait_for_err("WARNING: Field longer than 511 bytes dropped\n", 5000), std::string::npos)
        << proc->err();
    for (uint64_t n = 1; n <= 3; n++)
        EXPECT_TRUE(served(*c, n).any_alpha()) << n;
    c.reset();
    stop();
}

TEST_F(ServingProcessHarden, ACorruptEmojiImageIsRefusedWithItsLibpngMessage)
{
    // A PNG signature and an IHDR chunk (16 x 16, 8-bit RGBA) whose checksum
    // is wrong: libpng raises "IHDR: CRC error".
    const std::string corrupt("\x89PNG\r\n\x1a\n"
                              "\0\0\0\x0dIHDR\0\0\0\x10\0\0\0\x10\x08\x06\0\0\0"
                              "\0\0\0\0",
                              8 + 8 + 13 + 4);
    t4test::write_file(t4mi_fixed_path(T4MI_EMOJI_IMAGE_DIR) + "/emoji_u2764.png", corrupt);
    t4test::write_file(item_path, std::string(ITEM) + "#-emoji=color\nHeart \xe2\x9d\xa4 here\n");
    start({"--harden"});
    auto c = client();
    ASSERT_TRUE(c && c->send_settings(picture_settings(64, 16)));
    EXPECT_TRUE(served(*c, 0).any_alpha());
    EXPECT_NE(wait_for_err("PNG ERROR: IHDR: CRC error\n", 5000), std::string::npos) << proc->err();
    EXPECT_TRUE(served(*c, 1).any_alpha());
    EXPECT_TRUE(proc->running());
    c.reset();
    stop();
}

} // namespace
