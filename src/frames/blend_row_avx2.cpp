// The AVX2 row kernel: 16 pixels a block as sixteen 16-bit lanes of one
// register. This file alone is compiled for AVX2 (CMakeLists.txt); its kernel
// runs only where blend_row.cpp found AVX2 on the CPU. It includes nothing
// with inline code that other files share, so no AVX2 code leaks into them.
//
// The lanes follow the cases of blend_row_sse2.cpp (the same float division,
// exact for the same reason), with two differences that keep every product
// in 16 signed bits:
//   - copy lanes (d = 0, c != 0) take the source colour by a select, so the
//     other lanes have ia <= 255 (1 <= d there, so the quotient is below 256);
//   - the mix is dst + (((src - dst) * ia + 128) >> 8), which equals
//     (src * ia + dst * (256 - ia) + 128) >> 8 because dst * 256 is a
//     multiple of 256. _mm256_mulhrs_epi16 with ia * 128 computes
//     ((src - dst) * ia * 128 + 2^14) >> 15, the same floor, with
//     |src - dst| <= 255 and ia * 128 <= 32640.
#include "frames/blend_row.h"

#include "frames/blend_row_blocks.h"

#if defined(__AVX2__)
#include <immintrin.h>

const bool avx2_row_kernel_built = true;

namespace {

inline __m256i widen(const uint8_t* p) { return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }

inline void narrow(uint8_t* p, __m256i v)
{
    const __m128i bytes = _mm_packus_epi16(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), bytes);
}

// floor(num / den) per 16-bit lane (num read as unsigned), through
// single-precision floats. den must not be 0. Lanes above 32767 saturate;
// they are never the lanes that use the quotient.
inline __m256i divide16(__m256i num, __m256i den)
{
    const __m256i zero = _mm256_setzero_si256();
    const __m256 lo = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_unpacklo_epi16(num, zero)),
                                    _mm256_cvtepi32_ps(_mm256_unpacklo_epi16(den, zero)));
    const __m256 hi = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_unpackhi_epi16(num, zero)),
                                    _mm256_cvtepi32_ps(_mm256_unpackhi_epi16(den, zero)));
    // Unpack and pack both work within each 128-bit half, so the lanes come
    // back in their order.
    return _mm256_packs_epi32(_mm256_cvttps_epi32(lo), _mm256_cvttps_epi32(hi));
}

// The packed colour as 16-bit lanes.
struct colour_lanes {
    explicit colour_lanes(uint32_t colour)
        : a(_mm256_set1_epi16(short(colour >> 24))), y(_mm256_set1_epi16(short(colour & 0xFF))),
          u(_mm256_set1_epi16(short((colour >> 8) & 0xFF))), v(_mm256_set1_epi16(short((colour >> 16) & 0xFF)))
    {
    }
    __m256i a, y, u, v;
};

// dst + (((src - dst) * ia + 128) >> 8), or src in copy lanes. `w` is ia * 128.
inline __m256i mix(__m256i src, __m256i dst, __m256i w, __m256i copy)
{
    const __m256i mixed = _mm256_add_epi16(dst, _mm256_mulhrs_epi16(_mm256_sub_epi16(src, dst), w));
    return _mm256_blendv_epi8(mixed, src, copy);
}

void blend_block(const colour_lanes& k, const yuva_row& dst, const row_sources& src, size_t at, const uint8_t* done)
{
    __m128i c8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src.coverage + at));
    if (done != nullptr)
        c8 = _mm_andnot_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(done)), c8);
    if (_mm_testz_si128(c8, c8))
        return; // nothing covered in these 16
    const __m256i zero = _mm256_setzero_si256();
    const __m256i c = _mm256_cvtepu8_epi16(c8);
    const __m256i dy = widen(dst.y + at), du = widen(dst.u + at), dv = widen(dst.v + at), da = widen(dst.a + at);
    __m256i sy = k.y, su = k.u, sv = k.v;
    if (src.y != nullptr)
        sy = widen(src.y + at), su = widen(src.u + at), sv = widen(src.v + at);

    const __m256i s = _mm256_mulhi_epu16(_mm256_mullo_epi16(c, k.a), _mm256_set1_epi16(257));
    const __m256i sum = _mm256_add_epi16(da, s);
    const __m256i empty = _mm256_cmpeq_epi16(da, zero);
    const __m256i copy = _mm256_andnot_si256(_mm256_cmpeq_epi16(c, zero), empty);
    // Only lanes with 1 <= d, d + s <= 255 and s >= 1 need the quotient;
    // everywhere else ia = s (0 where nothing is covered).
    const __m256i divides = _mm256_andnot_si256(_mm256_or_si256(empty, _mm256_cmpeq_epi16(s, zero)),
                                                _mm256_cmpgt_epi16(_mm256_set1_epi16(256), sum));
    __m256i ia = s;
    if (!_mm256_testz_si256(divides, divides))
        ia = _mm256_blendv_epi8(s, divide16(_mm256_slli_epi16(s, 8), _mm256_max_epi16(sum, _mm256_set1_epi16(1))),
                                divides);
    const __m256i w = _mm256_slli_epi16(ia, 7);
    narrow(dst.y + at, mix(sy, dy, w, copy));
    narrow(dst.u + at, mix(su, du, w, copy));
    narrow(dst.v + at, mix(sv, dv, w, copy));
    narrow(dst.a + at, _mm256_min_epi16(sum, _mm256_set1_epi16(255)));
}

} // namespace

void blend_row_avx2(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
                    const uint8_t* src_u, const uint8_t* src_v)
{
    const colour_lanes k(colour);
    walk_row_in_blocks(dst, row_sources{coverage, src_y, src_u, src_v}, n,
                       [&k](const yuva_row& d, const row_sources& s, size_t at, const uint8_t* done) {
                           blend_block(k, d, s, at, done);
                       });
}
#else
const bool avx2_row_kernel_built = false;

// Never chosen in such a build; the SSE2 kernel gives the same bytes.
void blend_row_avx2(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
                    const uint8_t* src_u, const uint8_t* src_v)
{
    blend_row_sse2(dst, coverage, n, colour, src_y, src_u, src_v);
}
#endif
