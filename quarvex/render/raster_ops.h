#pragma once
// Pixel arithmetic of the rasterising device: raster operations on 8-bit channels, luminance,
// and the ordered dither that turns grey into black and white.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qx::raster {

// One ROP3 over whole bytes: every bit of the result is the rop's bit at index
// T*4 + S*2 + D of the operand bits at the same position.
template <typename W>
inline W rop3Bits(uint8_t rop, W d, W s, W t) {
    W r = 0;
    if (rop & 0x01) r |= ~t & ~s & ~d;
    if (rop & 0x02) r |= ~t & ~s & d;
    if (rop & 0x04) r |= ~t & s & ~d;
    if (rop & 0x08) r |= ~t & s & d;
    if (rop & 0x10) r |= t & ~s & ~d;
    if (rop & 0x20) r |= t & ~s & d;
    if (rop & 0x40) r |= t & s & ~d;
    if (rop & 0x80) r |= t & s & d;
    return r;
}

inline uint8_t rop3(uint8_t rop, uint8_t d, uint8_t s, uint8_t t) {
    return static_cast<uint8_t>(rop3Bits<unsigned>(rop, d, s, t));
}

// Whether the result of the rop depends on the destination at all.
inline bool ropUsesDest(uint8_t rop) { return ((rop >> 1) & 0x55) != (rop & 0x55); }

// out[i] = rop(d[i], s[i], t[i]) for n bytes, eight at a time where it can.
inline void rop3Run(uint8_t rop, const uint8_t* d, const uint8_t* s, const uint8_t* t, uint8_t* out,
                    size_t n) {
    size_t i = 0;
    switch (rop) {
    case 252: // T or S, the default
        for (; i + 8 <= n; i += 8) {
            uint64_t a, b;
            std::memcpy(&a, s + i, 8);
            std::memcpy(&b, t + i, 8);
            a |= b;
            std::memcpy(out + i, &a, 8);
        }
        for (; i < n; ++i)
            out[i] = s[i] | t[i];
        return;
    case 204:
        std::memcpy(out, s, n);
        return;
    case 240:
        std::memcpy(out, t, n);
        return;
    default: break;
    }
    for (; i + 8 <= n; i += 8) {
        uint64_t dd, ss, tt;
        std::memcpy(&dd, d + i, 8);
        std::memcpy(&ss, s + i, 8);
        std::memcpy(&tt, t + i, 8);
        const uint64_t r = rop3Bits<uint64_t>(rop, dd, ss, tt);
        std::memcpy(out + i, &r, 8);
    }
    for (; i < n; ++i)
        out[i] = rop3(rop, d[i], s[i], t[i]);
}

// d[i] keeps its byte where keep[i] is 0xFF and takes r[i] where it is 0, for n bytes, eight
// at a time.
inline void blendKeep(uint8_t* d, const uint8_t* r, const uint8_t* keep, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t dv, rv, kv;
        std::memcpy(&dv, d + i, 8);
        std::memcpy(&rv, r + i, 8);
        std::memcpy(&kv, keep + i, 8);
        dv = (dv & kv) | (rv & ~kv);
        std::memcpy(d + i, &dv, 8);
    }
    for (; i < n; ++i)
        d[i] = uint8_t((d[i] & keep[i]) | (r[i] & ~keep[i]));
}

// ITU-R BT.601 luma, rounded; 0 = black, 255 = white.
inline uint8_t luminance(uint8_t r, uint8_t g, uint8_t b) {
    return static_cast<uint8_t>((299u * r + 587u * g + 114u * b + 500u) / 1000u);
}

// The 16x16 ordered-dither thresholds, in 1..255: a grey value g prints black where
// g < threshold. 0 is below every threshold and 255 below none, so black and white stay pure.
const uint8_t (&ditherThresholds())[16][16];

} // namespace qx::raster
