// The SSE2 row kernel: 16 pixels a block, as two halves of eight 16-bit
// lanes. yuvablend's three cases become one formula per lane, so a block
// needs no branch per pixel:
//
//   copy lanes (d = 0, c != 0)   ia = 256: (src * 256 + dst * 0 + 128) >> 8
//                                is src, and min(d + s, 255) = s;
//   d + s <= 255, d >= 1         ia = (256 s) / (d + s), from a float division;
//   d + s >= 256                 ia = s (for d + s = 256 the quotient is s);
//   no coverage                  s = 0, so ia = 0 and the pixel stays (for
//                                d = 0 too, as the lane is no copy lane);
//   new alpha                    min(d + s, 255) in every case.
//
// The float division is exact after truncation: there 1 <= d, so the quotient
// is below 256 and its rounding error below 256 * 2^-24, far less than the
// 1/256 that separates a non-integer quotient n/m (m <= 256) from the next
// integer. Every product fits 16 bits unsigned: src * ia + dst * (256 - ia)
// is at most 255 * 256, plus 128 for the rounding term.
#include "frames/blend_row.h"

#if defined(__SSE2__)
#include <emmintrin.h>

#include "frames/blend_row_blocks.h"

namespace {

inline __m128i select16(__m128i mask, __m128i if_set, __m128i if_clear)
{
    return _mm_or_si128(_mm_and_si128(mask, if_set), _mm_andnot_si128(mask, if_clear));
}

// floor(num / den) per 16-bit lane (num read as unsigned), through
// single-precision floats (exact for the lanes that use it, see above). den
// must not be 0.
inline __m128i divide16(__m128i num, __m128i den)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128 lo = _mm_div_ps(_mm_cvtepi32_ps(_mm_unpacklo_epi16(num, zero)),
                                 _mm_cvtepi32_ps(_mm_unpacklo_epi16(den, zero)));
    const __m128 hi = _mm_div_ps(_mm_cvtepi32_ps(_mm_unpackhi_epi16(num, zero)),
                                 _mm_cvtepi32_ps(_mm_unpackhi_epi16(den, zero)));
    // Lanes above 32767 saturate; they are never the lanes that use the quotient.
    return _mm_packs_epi32(_mm_cvttps_epi32(lo), _mm_cvttps_epi32(hi));
}

// (src * ia + dst * (256 - ia) + 128) >> 8 per 16-bit lane.
inline __m128i mix16(__m128i src, __m128i dst, __m128i ia, __m128i inv)
{
    const __m128i sum = _mm_add_epi16(_mm_mullo_epi16(src, ia), _mm_mullo_epi16(dst, inv));
    return _mm_srli_epi16(_mm_add_epi16(sum, _mm_set1_epi16(128)), 8);
}

// Eight pixels as 16-bit lanes. `c` coverage, `a16` the colour's alpha in
// every lane, `sy`, `su`, `sv` the source colour.
inline void blend8(__m128i c, __m128i a16, __m128i sy, __m128i su, __m128i sv, __m128i& dy, __m128i& du,
                   __m128i& dv, __m128i& da)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i s = _mm_mulhi_epu16(_mm_mullo_epi16(c, a16), _mm_set1_epi16(257));
    const __m128i sum = _mm_add_epi16(da, s);
    const __m128i empty = _mm_cmpeq_epi16(da, zero);
    const __m128i copy = _mm_andnot_si128(_mm_cmpeq_epi16(c, zero), empty);
    const __m128i below_256 = _mm_cmplt_epi16(sum, _mm_set1_epi16(256));
    // Only lanes with 1 <= d, d + s <= 255 and s >= 1 need the quotient.
    const __m128i divides = _mm_andnot_si128(_mm_or_si128(empty, _mm_cmpeq_epi16(s, zero)), below_256);
    __m128i ia = s;
    if (_mm_movemask_epi8(divides) != 0)
        ia = select16(divides, divide16(_mm_slli_epi16(s, 8), _mm_max_epi16(sum, _mm_set1_epi16(1))), s);
    ia = select16(copy, _mm_set1_epi16(256), ia);
    const __m128i inv = _mm_sub_epi16(_mm_set1_epi16(256), ia);
    dy = mix16(sy, dy, ia, inv);
    du = mix16(su, du, ia, inv);
    dv = mix16(sv, dv, ia, inv);
    da = _mm_min_epi16(sum, _mm_set1_epi16(255));
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// The packed colour as 16-bit lanes.
struct colour_lanes {
    explicit colour_lanes(uint32_t colour)
        : a(_mm_set1_epi16(short(colour >> 24))), y(_mm_set1_epi16(short(colour & 0xFF))),
          u(_mm_set1_epi16(short((colour >> 8) & 0xFF))), v(_mm_set1_epi16(short((colour >> 16) & 0xFF)))
    {
    }
    __m128i a, y, u, v;
};

void blend_block(const colour_lanes& k, const yuva_row& dst, const row_sources& src, size_t at, const uint8_t* done)
{
    const __m128i zero = _mm_setzero_si128();
    __m128i c = load16(src.coverage + at);
    if (done != nullptr)
        c = _mm_andnot_si128(load16(done), c);
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(c, zero)) == 0xFFFF)
        return; // nothing covered in these 16
    const __m128i y = load16(dst.y + at), u = load16(dst.u + at), v = load16(dst.v + at), a = load16(dst.a + at);
    __m128i y_lo = _mm_unpacklo_epi8(y, zero), y_hi = _mm_unpackhi_epi8(y, zero);
    __m128i u_lo = _mm_unpacklo_epi8(u, zero), u_hi = _mm_unpackhi_epi8(u, zero);
    __m128i v_lo = _mm_unpacklo_epi8(v, zero), v_hi = _mm_unpackhi_epi8(v, zero);
    __m128i a_lo = _mm_unpacklo_epi8(a, zero), a_hi = _mm_unpackhi_epi8(a, zero);
    __m128i sy_lo = k.y, sy_hi = k.y, su_lo = k.u, su_hi = k.u, sv_lo = k.v, sv_hi = k.v;
    if (src.y != nullptr) {
        const __m128i sy = load16(src.y + at), su = load16(src.u + at), sv = load16(src.v + at);
        sy_lo = _mm_unpacklo_epi8(sy, zero), sy_hi = _mm_unpackhi_epi8(sy, zero);
        su_lo = _mm_unpacklo_epi8(su, zero), su_hi = _mm_unpackhi_epi8(su, zero);
        sv_lo = _mm_unpacklo_epi8(sv, zero), sv_hi = _mm_unpackhi_epi8(sv, zero);
    }
    blend8(_mm_unpacklo_epi8(c, zero), k.a, sy_lo, su_lo, sv_lo, y_lo, u_lo, v_lo, a_lo);
    blend8(_mm_unpackhi_epi8(c, zero), k.a, sy_hi, su_hi, sv_hi, y_hi, u_hi, v_hi, a_hi);
    store16(dst.y + at, _mm_packus_epi16(y_lo, y_hi));
    store16(dst.u + at, _mm_packus_epi16(u_lo, u_hi));
    store16(dst.v + at, _mm_packus_epi16(v_lo, v_hi));
    store16(dst.a + at, _mm_packus_epi16(a_lo, a_hi));
}

} // namespace

void blend_row_sse2(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
                    const uint8_t* src_u, const uint8_t* src_v)
{
    const colour_lanes k(colour);
    walk_row_in_blocks(dst, row_sources{coverage, src_y, src_u, src_v}, n,
                       [&k](const yuva_row& d, const row_sources& s, size_t at, const uint8_t* done) {
                           blend_block(k, d, s, at, done);
                       });
}
#else
void blend_row_sse2(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
                    const uint8_t* src_u, const uint8_t* src_v)
{
    blend_row_reference(dst, coverage, n, colour, src_y, src_u, src_v);
}
#endif
