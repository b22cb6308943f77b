// Bilinear resampling of one bitmap plane, in 16.16 fixed point with the
// corner pixels aligned: the first and last destination pixels fall exactly
// on the first and last source pixels, because the step divides by the
// destination size less one.
//
// Each destination row blends two source rows into a row buffer (a straight
// loop the compiler can vectorise) and then interpolates along the buffer at
// column positions stepped out once per call.
// The steps truncate, so the position after the last column or row never
// passes the last source pixel; when it reaches it the fraction is 0 and the
// byte after the row (one of the record's 8 spare bytes) is read with weight
// zero. Nothing rounds: the arithmetic is unsigned 32-bit with truncating
// shifts, so results are reproducible bit for bit.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fonts/font_bmp.h"
#include "platform/t4mi_assert.h"

void font_bmp_cache_storage::scalecopy(const font_bmp_cache_storage* df, uint8_t* dst,
                                       const font_bmp_cache_storage* sf, const uint8_t* src) const
{
    T4MI_ASSERT(sf->width > 0);
    T4MI_ASSERT(sf->height > 0);
    T4MI_ASSERT(df->width > 0);
    T4MI_ASSERT(df->height > 0);

    // Deliberate: a destination 1 pixel wide or high divides by zero. The
    // glyph cache never asks for one (its emoji are at least 4 rows high).
    const int32_t xstep = ((sf->width - 1) * 65536) / (df->width - 1);
    const int32_t ystep = ((sf->height - 1) * 65536) / (df->height - 1);

    // The blend writes sf->width bytes; the one after them is read with
    // weight zero, so the buffer is zeroed and a little longer.
    std::vector<uint8_t> buffer(size_t(sf->width) + 8, 0);
    const uint32_t sw = uint32_t(sf->width);
    const int32_t dw = df->width; // kept local: the byte stores below may alias the record

    // Every row samples the same columns: step along once, keeping each
    // column's source pixel and 16-bit fraction, so the rows are plain loops.
    std::vector<uint32_t> column(size_t(df->width));
    std::vector<uint32_t> fraction(size_t(df->width));
    uint32_t xi = 0;
    uint32_t fx = 0;
    for (int32_t k = 0; k < df->width; k++) {
        column[size_t(k)] = xi;
        fraction[size_t(k)] = fx;
        fx += uint32_t(xstep);
        xi += fx >> 16;
        fx &= 0xFFFF;
    }

    uint32_t yw = 0;
    uint32_t fy = 0;
    for (int32_t j = 0; j < df->height; j++) {
        T4MI_ASSERT(yw < (unsigned int)sf->height);
        const uint8_t* srow1 = src + size_t(sf->stride) * yw;
        const uint8_t* srow2 = srow1 + sf->stride;
        const uint8_t* row;
        if (yw + 1 >= uint32_t(sf->height)) {
            T4MI_ASSERT((srow1+sf->stride) <= (src+sf->stride*sf->height));
            row = srow1;
        } else {
            T4MI_ASSERT((srow1+sf->stride) <= (src+sf->stride*sf->height));
            T4MI_ASSERT((srow2+sf->stride) <= (src+sf->stride*sf->height));
            if (srow1 == srow2) {
                row = srow1;
            } else {
                const uint32_t w1 = 65536 - fy;
                const uint32_t w2 = fy;
                uint8_t* b = buffer.data();
                for (uint32_t i = 0; i < sw; i++)
                    b[i] = uint8_t((uint32_t(srow1[i]) * w1 + uint32_t(srow2[i]) * w2) >> 16);
                b[sw + 1] = b[sw];
                row = b;
            }
        }

        uint8_t* out = dst + size_t(j) * size_t(df->stride);
        const uint32_t* cols = column.data();
        const uint32_t* fracs = fraction.data();
        for (int32_t k = 0; k < dw; k++) {
            const uint32_t c = cols[k];
            const uint32_t f = fracs[k];
            out[k] = uint8_t((uint32_t(row[c]) * (65536 - f) + uint32_t(row[c + 1]) * f) >> 16);
        }

        fy += uint32_t(ystep);
        yw += fy >> 16;
        fy &= 0xFFFF;
    }
}
