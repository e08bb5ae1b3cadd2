#pragma once
// Little-endian field access with bounds: every read names an offset inside a span and comes
// back as 0 when the span is too short, so a damaged record can never read past its end.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qx::emf {

struct Bytes {
    const uint8_t* data = nullptr;
    size_t size = 0;

    bool has(size_t offset, size_t count) const { return offset <= size && count <= size - offset; }
    uint8_t u8(size_t o) const { return has(o, 1) ? data[o] : 0; }
    uint16_t u16(size_t o) const { return has(o, 2) ? uint16_t(data[o] | data[o + 1] << 8) : 0; }
    int16_t i16(size_t o) const { return int16_t(u16(o)); }
    uint32_t u32(size_t o) const {
        return has(o, 4) ? uint32_t(data[o]) | uint32_t(data[o + 1]) << 8 | uint32_t(data[o + 2]) << 16 |
                               uint32_t(data[o + 3]) << 24
                         : 0;
    }
    int32_t i32(size_t o) const { return int32_t(u32(o)); }
    uint64_t u64(size_t o) const { return has(o, 8) ? uint64_t(u32(o)) | uint64_t(u32(o + 4)) << 32 : 0; }
    float f32(size_t o) const {
        const uint32_t bits = u32(o);
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    // The part [offset, offset + count); empty when it does not fit.
    Bytes sub(size_t offset, size_t count) const {
        return has(offset, count) ? Bytes{data + offset, count} : Bytes{};
    }
};

} // namespace qx::emf
