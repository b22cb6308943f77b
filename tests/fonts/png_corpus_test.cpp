// A corpus of odd PNG files through the emoji image reader: every colour type
// and bit depth, many sizes, and damaged files (truncated, bad checksums,
// flipped bytes, wrong signature). Each file is read in a forked child.
//
// The reader sets no long-jump target, so when libpng raises an error our
// handler prints "PNG ERROR: ..." and returns, and libpng 1.6 then has
// nowhere to jump: png_longjmp finds no jump buffer and calls abort(). That
// end (SIGABRT after our message) is libpng's own and is accepted; every
// other file must end in the reader's messages, and nothing may crash.
#include <csignal>
#include <cstring>
#include <random>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <png.h>

#include "fonts/emoji_images.h"
#include "fonts/font_bmp.h"
#include "fonts/font_test_support.h"
#include "platform/t4mi_globals.h"

using namespace t4test;

namespace {

// "<letter><n0><sep><n1>....png". Built by appending: GCC 12 at -O3 takes a
// one-letter literal plus a temporary string for an overlapping copy
// (-Wrestrict) that cannot happen.
std::string file_name(char letter, std::initializer_list<int> numbers, const char* separator)
{
    std::string name(1, letter);
    for (int n : numbers) {
        if (name.size() > 1)
            name += separator;
        name += std::to_string(n);
    }
    return name + ".png";
}

class png_corpus_test : public ::testing::Test {
protected:
    temp_dir dir;
    std::string path(const std::string& name) const { return dir / name; }
};

// Reads `file` in a child (with --harden when `harden`); the child prints
// "null" or "record WxH" and checks the record's planes are all there.
child_outcome read_in_child(const std::string& file, bool harden = false)
{
    return run_font_case_in_child([&] {
        t4mi_harden = harden ? 1 : 0;
        font_bmp_cache_storage* e = load_png_as_font_bmp(file.c_str());
        if (e == nullptr) {
            std::printf("null\n");
            return;
        }
        const bool planes = e->plane_a && e->plane_y && e->plane_u && e->plane_v;
        std::printf("record %dx%d%s\n", e->width, e->height, planes ? "" : " missing-planes");
        font_bmp_free(e);
    });
}

// Every line is one the reader prints (or a libpng warning it passes on).
::testing::AssertionResult only_reader_messages(const std::string& err)
{
    static const std::regex known(
        "PNG info: [0-9]+ x [0-9]+ [0-9]+-bit colortype=[0-9]+ ilmethod=[0-9]+ cmethod=[0-9]+ fmethod=[0-9]+"
        "|  PNG_COLOR_MASK_(PALETTE|COLOR|ALPHA)"
        "|Image width and height is unacceptable"
        "|We do not support interlaced PNGs"
        "|PNG must be RGBA"
        "|PNG WARNING: .*"
        "|PNG: cannot open .*");
    std::istringstream in(err);
    std::string line;
    while (std::getline(in, line))
        if (!std::regex_match(line, known))
            return ::testing::AssertionFailure() << "unexpected line: " << line;
    return ::testing::AssertionSuccess();
}

// The child either returned (with only the reader's messages), or libpng
// aborted it right after reporting an error through our handler.
::testing::AssertionResult ended_cleanly(const child_outcome& o)
{
    if (o.exited)
        return only_reader_messages(o.err) << "\n" << o.err;
    if (o.signal == SIGABRT && o.err.find("PNG ERROR: ") != std::string::npos &&
        o.out.empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "child ended by signal " << o.signal << " (" << strsignal(o.signal)
                                         << ")\nstdout: " << o.out << "\nstderr: " << o.err;
}

TEST_F(png_corpus_test, libpng_aborts_when_the_error_handler_returns)
{
    // Not a PNG at all: png_read_info raises "Not a PNG file"; the handler
    // prints it and returns, and libpng aborts.
    write_file(path("text.png"), "this is not a png file, just some text\n");
    const child_outcome o = read_in_child(path("text.png"));
    EXPECT_FALSE(o.exited);
    EXPECT_EQ(o.signal, SIGABRT);
    EXPECT_NE(o.err.find("PNG ERROR: Not a PNG file\n"), std::string::npos) << o.err;
}

TEST_F(png_corpus_test, every_colour_type_and_bit_depth)
{
    struct kind {
        int color_type;
        std::vector<int> depths;
        const char* bits;
    };
    const std::vector<kind> kinds = {
        {PNG_COLOR_TYPE_GRAY, {1, 2, 4, 8, 16}, ""},
        {PNG_COLOR_TYPE_RGB, {8, 16}, "  PNG_COLOR_MASK_COLOR\n"},
        {PNG_COLOR_TYPE_PALETTE, {1, 2, 4, 8}, "  PNG_COLOR_MASK_PALETTE\n  PNG_COLOR_MASK_COLOR\n"},
        {PNG_COLOR_TYPE_GRAY_ALPHA, {8, 16}, "  PNG_COLOR_MASK_ALPHA\n"},
        {PNG_COLOR_TYPE_RGB_ALPHA, {8, 16}, "  PNG_COLOR_MASK_COLOR\n  PNG_COLOR_MASK_ALPHA\n"},
    };
    for (const auto& k : kinds)
        for (int depth : k.depths)
            for (int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
                const std::string name = file_name('t', {k.color_type, depth, interlace}, "_");
                write_png(path(name), pattern_image(33, 17, depth, k.color_type, interlace));
                const child_outcome o = read_in_child(path(name));
                SCOPED_TRACE(name);
                ASSERT_TRUE(o.exited) << o.err;
                std::string expected = "PNG info: 33 x 17 " + std::to_string(depth) + "-bit colortype=" +
                                       std::to_string(k.color_type) + " ilmethod=" + std::to_string(interlace) +
                                       " cmethod=0 fmethod=0\n" + k.bits;
                if (interlace != PNG_INTERLACE_NONE)
                    expected += "We do not support interlaced PNGs\n";
                else if (k.color_type != PNG_COLOR_TYPE_RGB_ALPHA)
                    expected += "PNG must be RGBA\n";
                EXPECT_EQ(o.err, expected);
                const bool accepted = interlace == PNG_INTERLACE_NONE && k.color_type == PNG_COLOR_TYPE_RGB_ALPHA;
                EXPECT_EQ(o.out, accepted ? "record 33x17\n" : "null\n");
            }
}

TEST_F(png_corpus_test, many_sizes)
{
    for (uint32_t w : {1u, 2u, 15u, 16u, 17u, 100u, 255u, 256u, 257u, 1000u})
        for (uint32_t h : {1u, 15u, 16u, 200u, 256u, 257u}) {
            const std::string name = file_name('s', {int(w), int(h)}, "x");
            write_png(path(name), pattern_image(w, h, 8, PNG_COLOR_TYPE_RGB_ALPHA));
            const child_outcome o = read_in_child(path(name));
            SCOPED_TRACE(name);
            ASSERT_TRUE(o.exited) << o.err;
            const bool fits = w >= 16 && w <= 256 && h >= 16 && h <= 256;
            EXPECT_EQ(o.out, fits ? "record " + std::to_string(w) + "x" + std::to_string(h) + "\n" : "null\n");
            EXPECT_EQ(o.err.find("Image width and height is unacceptable\n") != std::string::npos, !fits);
        }
}

TEST_F(png_corpus_test, a_missing_file_and_an_empty_file)
{
    const child_outcome missing = read_in_child(path("none.png"));
    EXPECT_TRUE(missing.exited);
    EXPECT_EQ(missing.err, "PNG: cannot open " + path("none.png") + "\n");
    EXPECT_EQ(missing.out, "null\n");

    write_file(path("empty.png"), "");
    const child_outcome empty = read_in_child(path("empty.png"));
    EXPECT_TRUE(ended_cleanly(empty));
    EXPECT_EQ(empty.signal, SIGABRT); // "Read Error" from libpng's reader
}

TEST_F(png_corpus_test, truncated_files)
{
    write_png(path("whole.png"), pattern_image(64, 64, 8, PNG_COLOR_TYPE_RGB_ALPHA));
    const std::string whole = read_file(path("whole.png"));
    size_t aborted = 0;
    for (size_t len = 0; len < whole.size(); len += (len < 64 ? 1 : 97)) {
        write_file(path("cut.png"), whole.substr(0, len));
        const child_outcome o = read_in_child(path("cut.png"));
        EXPECT_TRUE(ended_cleanly(o)) << "length " << len;
        aborted += !o.exited;
    }
    // A file cut before its pixels end always runs out of data in libpng.
    EXPECT_GT(aborted, 0u);
    // The whole file reads; so does one without its IEND chunk, since the end
    // is never read.
    write_file(path("no_iend.png"), whole.substr(0, whole.size() - 12));
    const child_outcome no_end = read_in_child(path("no_iend.png"));
    EXPECT_TRUE(no_end.exited) << no_end.err;
    EXPECT_EQ(no_end.out, "record 64x64\n");
}

TEST_F(png_corpus_test, bad_signature_and_bad_checksums)
{
    write_png(path("whole.png"), pattern_image(32, 32, 8, PNG_COLOR_TYPE_RGB_ALPHA));
    const std::string whole = read_file(path("whole.png"));

    std::string bad_sig = whole;
    bad_sig[1] = 'Q';
    write_file(path("sig.png"), bad_sig);
    const child_outcome sig = read_in_child(path("sig.png"));
    EXPECT_TRUE(ended_cleanly(sig));
    EXPECT_EQ(sig.signal, SIGABRT);

    // The IHDR checksum sits at bytes 29..32 (8 signature + 4 length + 4 type
    // + 13 data).
    std::string bad_crc = whole;
    bad_crc[29] = char(bad_crc[29] ^ 0x55);
    write_file(path("crc.png"), bad_crc);
    const child_outcome crc = read_in_child(path("crc.png"));
    EXPECT_TRUE(ended_cleanly(crc));
    EXPECT_EQ(crc.signal, SIGABRT);
    EXPECT_NE(crc.err.find("PNG ERROR: IHDR: CRC error"), std::string::npos) << crc.err;
}

TEST_F(png_corpus_test, invalid_headers)
{
    // A 16 x 16 RGBA file with a bit depth of 3 in its header: libpng
    // refuses the header ("Invalid IHDR data") and aborts.
    write_png(path("whole.png"), pattern_image(16, 16, 8, PNG_COLOR_TYPE_RGB_ALPHA));
    std::string bad_depth = read_file(path("whole.png"));
    bad_depth[24] = 3; // IHDR data starts at 16: width, height, then the bit depth
    write_file(path("depth.png"), bad_depth);
    const child_outcome depth = read_in_child(path("depth.png"));
    EXPECT_TRUE(ended_cleanly(depth));
    EXPECT_EQ(depth.signal, SIGABRT);

    // Beyond the 16384 user limit: libpng refuses it before we see it.
    test_png huge = pattern_image(20000, 1, 8, PNG_COLOR_TYPE_GRAY);
    write_png(path("huge.png"), huge);
    const child_outcome big = read_in_child(path("huge.png"));
    EXPECT_TRUE(ended_cleanly(big));
    EXPECT_EQ(big.signal, SIGABRT);
    EXPECT_NE(big.err.find("PNG ERROR: "), std::string::npos);
}

TEST_F(png_corpus_test, flipped_bytes_never_crash)
{
    write_png(path("whole.png"), pattern_image(48, 40, 8, PNG_COLOR_TYPE_RGB_ALPHA));
    write_png(path("whole16.png"), pattern_image(20, 20, 16, PNG_COLOR_TYPE_RGB_ALPHA));
    std::mt19937 random(20240607);
    for (const char* source : {"whole.png", "whole16.png"}) {
        const std::string whole = read_file(path(source));
        for (int round = 0; round < 60; round++) {
            std::string damaged = whole;
            const int flips = 1 + int(random() % 4);
            for (int i = 0; i < flips; i++)
                damaged[random() % damaged.size()] = char(random() & 0xFF);
            write_file(path("flip.png"), damaged);
            const child_outcome o = read_in_child(path("flip.png"));
            EXPECT_TRUE(ended_cleanly(o)) << source << " round " << round;
        }
    }
}

// With --harden no file ends the process: whatever libpng cannot decode is
// refused with its message, and the reader returns.
TEST_F(png_corpus_test, hardened_reader_refuses_what_libpng_cannot_decode)
{
    write_png(path("whole.png"), pattern_image(64, 64, 8, PNG_COLOR_TYPE_RGB_ALPHA));
    const std::string whole = read_file(path("whole.png"));
    std::vector<std::string> damaged = {"this is not a png file, just some text\n", ""};
    for (size_t len = 1; len < whole.size() - 12; len += (len < 64 ? 3 : 97))
        damaged.push_back(whole.substr(0, len));
    std::string crc = whole;
    crc[29] = char(crc[29] ^ 0x55); // the IHDR checksum
    damaged.push_back(crc);
    std::string depth = whole;
    depth[24] = 3; // a bit depth libpng refuses
    damaged.push_back(depth);
    std::mt19937 random(20240611);
    for (int round = 0; round < 40; round++) {
        std::string flipped = whole;
        flipped[random() % flipped.size()] = char(random() & 0xFF);
        damaged.push_back(flipped);
    }
    size_t refused_by_libpng = 0;
    for (size_t i = 0; i < damaged.size(); i++) {
        write_file(path("bad.png"), damaged[i]);
        const child_outcome o = read_in_child(path("bad.png"), true);
        ASSERT_TRUE(o.exited) << "file " << i << " ended by signal " << o.signal << "\n" << o.err;
        const bool libpng_error = o.err.find("PNG ERROR: ") != std::string::npos;
        if (libpng_error) {
            EXPECT_EQ(o.out, "null\n") << "file " << i;
        }
        refused_by_libpng += libpng_error;
    }
    EXPECT_GT(refused_by_libpng, damaged.size() / 2);

    const child_outcome text = read_in_child(path("whole.png"), true);
    EXPECT_EQ(text.out, "record 64x64\n");
    write_file(path("text.png"), "this is not a png file, just some text\n");
    const child_outcome not_png = read_in_child(path("text.png"), true);
    EXPECT_TRUE(not_png.exited);
    EXPECT_EQ(not_png.err, "PNG ERROR: Not a PNG file\n");
    EXPECT_EQ(not_png.out, "null\n");
}

} // namespace
