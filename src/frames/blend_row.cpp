// The vectorised row kernel. yuvablend's three cases become one formula on
// 16-bit lanes, so a chunk of pixels needs no branch per pixel:
//
//   d = 0           ia = 256: (src * 256 + dst * 0 + 128) >> 8 = src, and
//                   min(d + s, 255) = s, which is the copy of the rule;
//   d + s <= 256    ia = (256 s) / (d + s), taken from a float division;
//   d + s >= 257    ia = s;
//   new alpha       min(d + s, 255) in every case.
//
// The float division is exact after truncation: there 1 <= d, so the quotient
// is below 256 and its rounding error below 256 * 2^-24, far less than the
// 1/256 that separates a non-integer quotient n/m (m <= 256) from the next
// integer. Every product fits 16 bits unsigned: src * ia + dst * (256 - ia)
// is at most 255 * 256, plus 128 for the rounding term.
#include "frames/blend_row.h"

#include "frames/yuva_pixel.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

void blend_row_reference(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour,
                         const uint8_t* src_y, const uint8_t* src_u, const uint8_t* src_v)
{
    const unsigned a = colour >> 24;
    for (size_t i = 0; i < n; i++) {
        const unsigned c = coverage[i];
        if (c == 0)
            continue;
        const unsigned s = source_alpha(c, a);
        if (src_y != nullptr)
            yuvablend(dst.y + i, dst.u + i, dst.v + i, dst.a + i, s, src_y[i], src_u[i], src_v[i]);
        else
            yuvablend(dst.y + i, dst.u + i, dst.v + i, dst.a + i, s, colour & 0xFF, (colour >> 8) & 0xFF,
                      (colour >> 16) & 0xFF);
    }
}

#if defined(__SSE2__)
namespace {

inline __m128i select16(__m128i mask, __m128i if_set, __m128i if_clear)
{
    return _mm_or_si128(_mm_and_si128(mask, if_set), _mm_andnot_si128(mask, if_clear));
}

// floor(num / den) per 16-bit lane, through single-precision floats (exact
// for the lanes that use it, see above). den must not be 0.
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
// every lane, `sy`, `su`, `sv` the source colour; the destination lanes are
// updated where c != 0.
inline void blend8(__m128i c, __m128i a16, __m128i sy, __m128i su, __m128i sv, __m128i& dy, __m128i& du,
                   __m128i& dv, __m128i& da)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i s = _mm_mulhi_epu16(_mm_mullo_epi16(c, a16), _mm_set1_epi16(257));
    const __m128i sum = _mm_add_epi16(da, s);
    const __m128i new_a = _mm_min_epi16(sum, _mm_set1_epi16(255));
    const __m128i empty = _mm_cmpeq_epi16(da, zero);
    const __m128i over_256 = _mm_cmpgt_epi16(sum, _mm_set1_epi16(256));
    const __m128i keep = _mm_cmpeq_epi16(c, zero);
    // Only lanes with 1 <= d and d + s <= 256 (and some coverage) divide.
    const __m128i divides = _mm_andnot_si128(_mm_or_si128(_mm_or_si128(empty, over_256), keep), _mm_set1_epi16(-1));
    __m128i ia = s;
    if (_mm_movemask_epi8(divides) != 0)
        ia = select16(over_256, s, divide16(_mm_slli_epi16(s, 8), _mm_max_epi16(sum, _mm_set1_epi16(1))));
    ia = select16(empty, _mm_set1_epi16(256), ia);
    const __m128i inv = _mm_sub_epi16(_mm_set1_epi16(256), ia);
    dy = select16(keep, dy, mix16(sy, dy, ia, inv));
    du = select16(keep, du, mix16(su, du, ia, inv));
    dv = select16(keep, dv, mix16(sv, dv, ia, inv));
    da = select16(keep, da, new_a);
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

} // namespace

void blend_row(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
               const uint8_t* src_u, const uint8_t* src_v)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i a16 = _mm_set1_epi16(short(colour >> 24));
    const __m128i cy = _mm_set1_epi16(short(colour & 0xFF));
    const __m128i cu = _mm_set1_epi16(short((colour >> 8) & 0xFF));
    const __m128i cv = _mm_set1_epi16(short((colour >> 16) & 0xFF));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i c = load16(coverage + i);
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(c, zero)) == 0xFFFF)
            continue; // nothing covered in these 16
        const __m128i y = load16(dst.y + i), u = load16(dst.u + i), v = load16(dst.v + i), a = load16(dst.a + i);
        __m128i y_lo = _mm_unpacklo_epi8(y, zero), y_hi = _mm_unpackhi_epi8(y, zero);
        __m128i u_lo = _mm_unpacklo_epi8(u, zero), u_hi = _mm_unpackhi_epi8(u, zero);
        __m128i v_lo = _mm_unpacklo_epi8(v, zero), v_hi = _mm_unpackhi_epi8(v, zero);
        __m128i a_lo = _mm_unpacklo_epi8(a, zero), a_hi = _mm_unpackhi_epi8(a, zero);
        __m128i sy_lo = cy, sy_hi = cy, su_lo = cu, su_hi = cu, sv_lo = cv, sv_hi = cv;
        if (src_y != nullptr) {
            const __m128i sy = load16(src_y + i), su = load16(src_u + i), sv = load16(src_v + i);
            sy_lo = _mm_unpacklo_epi8(sy, zero), sy_hi = _mm_unpackhi_epi8(sy, zero);
            su_lo = _mm_unpacklo_epi8(su, zero), su_hi = _mm_unpackhi_epi8(su, zero);
            sv_lo = _mm_unpacklo_epi8(sv, zero), sv_hi = _mm_unpackhi_epi8(sv, zero);
        }
        blend8(_mm_unpacklo_epi8(c, zero), a16, sy_lo, su_lo, sv_lo, y_lo, u_lo, v_lo, a_lo);
        blend8(_mm_unpackhi_epi8(c, zero), a16, sy_hi, su_hi, sv_hi, y_hi, u_hi, v_hi, a_hi);
        store16(dst.y + i, _mm_packus_epi16(y_lo, y_hi));
        store16(dst.u + i, _mm_packus_epi16(u_lo, u_hi));
        store16(dst.v + i, _mm_packus_epi16(v_lo, v_hi));
        store16(dst.a + i, _mm_packus_epi16(a_lo, a_hi));
    }
    // The last n - i < 16 pixels one by one (row ends are mostly uncovered,
    // which this skips cheaply).
    blend_row_reference({dst.y + i, dst.u + i, dst.v + i, dst.a + i}, coverage + i, n - i, colour,
                        src_y ? src_y + i : nullptr, src_u ? src_u + i : nullptr, src_v ? src_v + i : nullptr);
}
#else
void blend_row(const yuva_row& dst, const uint8_t* coverage, size_t n, uint32_t colour, const uint8_t* src_y,
               const uint8_t* src_u, const uint8_t* src_v)
{
    blend_row_reference(dst, coverage, n, colour, src_y, src_u, src_v);
}
#endif
