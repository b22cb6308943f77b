// The vector row kernels against the reference (one yuvablend per pixel):
// identical bytes for every row length from 1 to 4,100, every colour alpha,
// every (coverage, destination alpha) pair, random destinations and sources,
// unaligned rows, and nothing written outside the row. And the choice among
// the kernels, with T4MI_CPU=sse2 forcing the SSE2 one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "frames/blend_row.h"

namespace {

// Bytes biased toward the values the blend treats specially.
uint8_t biased_byte(std::mt19937& rng)
{
    switch (rng() % 6) {
    case 0:
        return 0;
    case 1:
        return 255;
    case 2:
        return uint8_t(1 + rng() % 3);
    default:
        return uint8_t(rng());
    }
}

// Bytes around each plane's row that a kernel must leave alone.
constexpr size_t GUARD = 40;

// One destination row of four planes with guard bytes around each, and the
// sources of one bitmap row. The row starts `misalign` bytes into its plane.
struct row_case {
    row_case(std::mt19937& rng, size_t length, size_t misalign, bool coloured) : n(length), offset(GUARD + misalign)
    {
        planes.resize(4 * (n + 2 * GUARD + 16));
        for (uint8_t& b : planes)
            b = biased_byte(rng);
        coverage.resize(n);
        // Runs of equal coverage, as glyphs have (empty margins, solid stems).
        for (size_t x = 0; x < n;) {
            const uint8_t c = biased_byte(rng);
            for (size_t run = 1 + rng() % 40; run > 0 && x < n; run--, x++)
                coverage[x] = rng() % 4 == 0 ? biased_byte(rng) : c;
        }
        if (coloured) {
            for (auto* plane : {&src_y, &src_u, &src_v}) {
                plane->resize(n);
                for (uint8_t& b : *plane)
                    b = uint8_t(rng());
            }
        }
    }
    size_t plane_size() const { return planes.size() / 4; }
    yuva_row row(std::vector<uint8_t>& bytes) const
    {
        uint8_t* base = bytes.data() + offset;
        return {base, base + plane_size(), base + 2 * plane_size(), base + 3 * plane_size()};
    }
    const uint8_t* source(const std::vector<uint8_t>& plane) const { return plane.empty() ? nullptr : plane.data(); }

    // The kernel's bytes beside the reference's, for the same row and colour.
    void expect_same(blend_row_fn* kernel, uint32_t colour) const
    {
        std::vector<uint8_t> expected = planes, actual = planes;
        blend_row_reference(row(expected), coverage.data(), n, colour, source(src_y), source(src_u), source(src_v));
        kernel(row(actual), coverage.data(), n, colour, source(src_y), source(src_u), source(src_v));
        ASSERT_EQ(actual, expected) << "length " << n << " colour " << std::hex << colour;
    }

    size_t n;
    size_t offset;
    std::vector<uint8_t> planes;
    std::vector<uint8_t> coverage, src_y, src_u, src_v;
};

class RowKernel : public testing::TestWithParam<row_kernel> {
protected:
    void SetUp() override
    {
        if (!row_kernel_available(GetParam()))
            GTEST_SKIP() << row_kernel_name(GetParam()) << " is not available on this CPU";
    }
    blend_row_fn* kernel() const { return row_kernel_function(GetParam()); }
};

TEST_P(RowKernel, EveryLengthUpTo4100AgreesWithTheReference)
{
    std::mt19937 rng(4100);
    for (size_t n = 1; n <= 4100; n++) {
        const uint32_t alpha = uint32_t(n % 256);
        const bool coloured = n % 3 == 0;
        const row_case c(rng, n, n % 7, coloured);
        c.expect_same(kernel(), (rng() & 0xFFFFFF) | alpha << 24);
        if (HasFatalFailure())
            return;
    }
}

TEST_P(RowKernel, EveryAlphaOnRowsAroundTheBlockSize)
{
    std::mt19937 rng(256);
    const size_t lengths[] = {1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 23, 31, 32, 33, 47, 48, 49, 64, 65, 100, 255, 1000};
    for (uint32_t alpha = 0; alpha < 256; alpha++)
        for (size_t n : lengths)
            for (bool coloured : {false, true}) {
                const row_case c(rng, n, rng() % 16, coloured);
                c.expect_same(kernel(), (rng() & 0xFFFFFF) | alpha << 24);
                if (HasFatalFailure())
                    return;
            }
}

TEST_P(RowKernel, EveryCoverageDestinationAlphaAndColourAlpha)
{
    // For each colour alpha and destination alpha d, one row whose 256 pixels
    // have coverage 0..255 over random colours.
    std::mt19937 rng(65536);
    std::vector<uint8_t> coverage(256), sy(256), su(256), sv(256);
    for (size_t c = 0; c < 256; c++)
        coverage[c] = uint8_t(c);
    for (uint32_t alpha = 0; alpha < 256; alpha++) {
        const bool coloured = alpha % 2 == 1;
        for (auto* plane : {&sy, &su, &sv})
            for (uint8_t& b : *plane)
                b = uint8_t(rng());
        const uint32_t colour = (rng() & 0xFFFFFF) | alpha << 24;
        for (int d = 0; d < 256; d++) {
            std::vector<uint8_t> expected(4 * 256);
            for (size_t i = 0; i < 3 * 256; i++)
                expected[i] = uint8_t(rng());
            std::fill(expected.begin() + 3 * 256, expected.end(), uint8_t(d));
            std::vector<uint8_t> actual = expected;
            auto row = [](std::vector<uint8_t>& b) {
                return yuva_row{b.data(), b.data() + 256, b.data() + 512, b.data() + 768};
            };
            const uint8_t* y = coloured ? sy.data() : nullptr;
            const uint8_t* u = coloured ? su.data() : nullptr;
            const uint8_t* v = coloured ? sv.data() : nullptr;
            blend_row_reference(row(expected), coverage.data(), 256, colour, y, u, v);
            kernel()(row(actual), coverage.data(), 256, colour, y, u, v);
            ASSERT_EQ(actual, expected) << "alpha " << alpha << " d " << d;
        }
    }
}

TEST_P(RowKernel, RowsBlendedOverThemselvesAgree)
{
    // Layers of rows over one destination, so every destination alpha that
    // drawing produces meets every kind of source, at shifting offsets.
    std::mt19937 rng(77);
    for (int round = 0; round < 200; round++) {
        const row_case base(rng, 300, 0, false);
        std::vector<uint8_t> expected = base.planes, actual = base.planes;
        for (int layer = 0; layer < 12; layer++) {
            const size_t at = rng() % 100, n = 1 + rng() % 200;
            const row_case src(rng, n, 0, rng() % 3 == 0);
            const uint32_t colour = (rng() & 0xFFFFFF) | uint32_t(biased_byte(rng)) << 24;
            auto shifted = [&](std::vector<uint8_t>& bytes) {
                yuva_row r = base.row(bytes);
                return yuva_row{r.y + at, r.u + at, r.v + at, r.a + at};
            };
            blend_row_reference(shifted(expected), src.coverage.data(), n, colour, src.source(src.src_y),
                                src.source(src.src_u), src.source(src.src_v));
            kernel()(shifted(actual), src.coverage.data(), n, colour, src.source(src.src_y), src.source(src.src_u),
                     src.source(src.src_v));
        }
        ASSERT_EQ(actual, expected) << "round " << round;
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, RowKernel, testing::Values(row_kernel::sse2, row_kernel::avx2),
                         [](const testing::TestParamInfo<row_kernel>& info) {
                             return std::string(row_kernel_name(info.param));
                         });

// Sets an environment variable for one scope and puts the old value back.
class scoped_env {
public:
    scoped_env(const char* name, const char* value) : name_(name)
    {
        if (const char* old = std::getenv(name))
            old_ = old, had_ = true;
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~scoped_env()
    {
        if (had_)
            setenv(name_, old_.c_str(), 1);
        else
            unsetenv(name_);
    }

private:
    const char* name_;
    std::string old_;
    bool had_ = false;
};

TEST(RowKernelChoice, WithoutAvx2TheSse2KernelIsChosen)
{
    EXPECT_EQ(pick_row_kernel(nullptr, false), row_kernel::sse2);
    EXPECT_EQ(pick_row_kernel("sse2", false), row_kernel::sse2);
    EXPECT_EQ(pick_row_kernel("avx2", false), row_kernel::sse2);
}

TEST(RowKernelChoice, WithAvx2OnlyTheSwitchForcesSse2)
{
    EXPECT_EQ(pick_row_kernel(nullptr, true), row_kernel::avx2);
    EXPECT_EQ(pick_row_kernel("", true), row_kernel::avx2);
    EXPECT_EQ(pick_row_kernel("SSE2", true), row_kernel::avx2);
    EXPECT_EQ(pick_row_kernel("sse2", true), row_kernel::sse2);
}

TEST(RowKernelChoice, Avx2IsChosenWhereTheCpuHasIt)
{
    const scoped_env cpu("T4MI_CPU", nullptr);
    EXPECT_EQ(row_kernel_available(row_kernel::avx2), bool(__builtin_cpu_supports("avx2")));
    EXPECT_EQ(choose_row_kernel(), __builtin_cpu_supports("avx2") ? row_kernel::avx2 : row_kernel::sse2);
}

TEST(RowKernelChoice, TheSwitchForcesSse2)
{
    const scoped_env cpu("T4MI_CPU", "sse2");
    EXPECT_EQ(choose_row_kernel(), row_kernel::sse2);
}

TEST(RowKernelChoice, OtherValuesOfTheSwitchLeaveTheChoiceToTheCpu)
{
    const scoped_env cpu("T4MI_CPU", "avx2");
    EXPECT_EQ(choose_row_kernel(), __builtin_cpu_supports("avx2") ? row_kernel::avx2 : row_kernel::sse2);
}

TEST(RowKernelChoice, AFreshProcessWithTheSwitchBlendsWithSse2)
{
    // The choice is made once per process, so it is checked in a new one:
    // the "threadsafe" style runs this test again in a fresh program.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const scoped_env cpu("T4MI_CPU", "sse2");
    EXPECT_EXIT(std::exit(blend_row_kernel() == row_kernel::sse2 && blend_row_function() == blend_row_sse2 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

} // namespace
