#include "emf/dib.h"

#include <cairo.h>
#include <jpeglib.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace qx::emf {

namespace {

enum : uint32_t { BI_RGB = 0, BI_RLE8 = 1, BI_RLE4 = 2, BI_BITFIELDS = 3, BI_JPEG = 4, BI_PNG = 5, BI_ALPHABITFIELDS = 6 };

// The shift and width of a contiguous bit-field mask, for scaling a field to 8 bits.
struct Field {
    int shift = 0;
    int bits = 0;
    uint8_t extract(uint32_t v, uint32_t mask) const {
        if (bits == 0)
            return 0;
        const uint32_t x = (v & mask) >> shift;
        const uint32_t max = (bits >= 32) ? 0xffffffffu : ((1u << bits) - 1);
        return uint8_t((uint64_t(x) * 255 + max / 2) / max);
    }
};

Field fieldOf(uint32_t mask) {
    Field f;
    if (mask == 0)
        return f;
    while (!((mask >> f.shift) & 1))
        ++f.shift;
    while (f.shift + f.bits < 32 && ((mask >> (f.shift + f.bits)) & 1))
        ++f.bits;
    return f;
}

// Expands RLE8/RLE4 data into one index per pixel, rows bottom-up as stored. Pixels that the
// runs never reach keep index 0. Returns false when the data ends early (what was decoded stays).
bool expandRle(Bytes src, bool four, int width, int height, std::vector<uint8_t>& out) {
    out.assign(size_t(width) * size_t(height), 0);
    size_t p = 0;
    int x = 0, y = 0;
    auto put = [&](uint8_t index) {
        if (x < width && y < height)
            out[size_t(y) * size_t(width) + size_t(x)] = index;
        ++x;
    };
    while (p + 1 < src.size) {
        const uint8_t count = src.data[p], value = src.data[p + 1];
        p += 2;
        if (count > 0) {
            for (int i = 0; i < count; ++i)
                put(four ? uint8_t((i & 1) ? (value & 0x0f) : (value >> 4)) : value);
            continue;
        }
        if (value == 0) {          // end of line
            x = 0;
            ++y;
        } else if (value == 1) {   // end of bitmap
            return true;
        } else if (value == 2) {   // delta
            if (p + 1 >= src.size)
                return false;
            x += src.data[p];
            y += src.data[p + 1];
            p += 2;
        } else {                   // absolute run of value pixels
            const size_t bytes = four ? (size_t(value) + 1) / 2 : value;
            if (p + bytes > src.size)
                return false;
            for (int i = 0; i < value; ++i) {
                const uint8_t b = src.data[p + (four ? size_t(i / 2) : size_t(i))];
                put(four ? uint8_t((i & 1) ? (b & 0x0f) : (b >> 4)) : b);
            }
            p += (bytes + 1) & ~size_t(1);
        }
        if (y >= height)
            return true;
    }
    return false;
}

// libjpeg reports errors by calling error_exit, which must not return: jump back out.
struct JpegError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

DibResult decodeJpeg(Bytes file) {
    DibResult r;
    jpeg_decompress_struct cinfo{};
    JpegError err{};
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = [](j_common_ptr c) { std::longjmp(reinterpret_cast<JpegError*>(c->err)->jump, 1); };
    err.mgr.output_message = [](j_common_ptr) {};
    // Everything that must be freed on a jump lives outside this frame's locals.
    auto img = std::make_unique<Image>();
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        r.problem = "a JPEG bitmap that cannot be read";
        return r;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, file.data, static_cast<unsigned long>(file.size));
    jpeg_read_header(&cinfo, TRUE);
    if (cinfo.image_width == 0 || cinfo.image_height == 0 || cinfo.image_width > 65535 || cinfo.image_height > 65535 ||
        size_t(cinfo.image_width) * cinfo.image_height > kMaxDibPixels) {
        jpeg_destroy_decompress(&cinfo);
        r.problem = "a JPEG bitmap of impossible size";
        return r;
    }
    cinfo.out_color_space = JCS_RGB;
    jpeg_start_decompress(&cinfo);
    img->width = int(cinfo.output_width);
    img->height = int(cinfo.output_height);
    img->stride = size_t(img->width) * 3;
    img->data.assign(img->stride * size_t(img->height), 255);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = img->data.data() + size_t(cinfo.output_scanline) * img->stride;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    r.image = std::move(*img);
    return r;
}

struct PngReader {
    Bytes file;
    size_t at = 0;
};

DibResult decodePng(Bytes file) {
    DibResult r;
    // The PNG header gives the size; refuse huge ones before cairo allocates them.
    const uint32_t w = uint32_t(file.u8(16)) << 24 | uint32_t(file.u8(17)) << 16 | uint32_t(file.u8(18)) << 8 | file.u8(19);
    const uint32_t h = uint32_t(file.u8(20)) << 24 | uint32_t(file.u8(21)) << 16 | uint32_t(file.u8(22)) << 8 | file.u8(23);
    if (w == 0 || h == 0 || w > 65535 || h > 65535 || size_t(w) * h > kMaxDibPixels) {
        r.problem = "a PNG bitmap of impossible size";
        return r;
    }
    PngReader reader{file, 0};
    cairo_surface_t* surface = cairo_image_surface_create_from_png_stream(
        [](void* closure, unsigned char* out, unsigned int length) {
            auto* rd = static_cast<PngReader*>(closure);
            if (length > rd->file.size - rd->at)
                return CAIRO_STATUS_READ_ERROR;
            std::copy_n(rd->file.data + rd->at, length, out);
            rd->at += length;
            return CAIRO_STATUS_SUCCESS;
        },
        &reader);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(surface);
        r.problem = "a PNG bitmap that cannot be read";
        return r;
    }
    cairo_surface_flush(surface);
    const cairo_format_t format = cairo_image_surface_get_format(surface);
    Image img;
    img.width = cairo_image_surface_get_width(surface);
    img.height = cairo_image_surface_get_height(surface);
    img.stride = size_t(img.width) * 3;
    img.data.resize(img.stride * size_t(img.height));
    const unsigned char* src = cairo_image_surface_get_data(surface);
    const size_t srcStride = size_t(cairo_image_surface_get_stride(surface));
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            uint32_t v;
            std::memcpy(&v, src + size_t(y) * srcStride + size_t(x) * 4, 4);
            // Premultiplied ARGB in native order: over white, each channel is c + (255 - a).
            const uint32_t a = format == CAIRO_FORMAT_ARGB32 ? v >> 24 : 255;
            if (a < 255)
                r.hasAlpha = true;
            uint8_t* out = img.data.data() + size_t(y) * img.stride + size_t(x) * 3;
            out[0] = uint8_t(std::min<uint32_t>(255, ((v >> 16) & 0xff) + 255 - a));
            out[1] = uint8_t(std::min<uint32_t>(255, ((v >> 8) & 0xff) + 255 - a));
            out[2] = uint8_t(std::min<uint32_t>(255, (v & 0xff) + 255 - a));
        }
    cairo_surface_destroy(surface);
    r.image = std::move(img);
    return r;
}

} // namespace

DibResult decodePngOrJpeg(Bytes file) {
    if (file.size >= 24 && file.u32(0) == 0x474E5089 && file.u32(4) == 0x0A1A0A0D)
        return decodePng(file);
    if (file.size >= 4 && file.u8(0) == 0xFF && file.u8(1) == 0xD8)
        return decodeJpeg(file);
    DibResult r;
    r.problem = "a compressed bitmap that is neither PNG nor JPEG";
    return r;
}

PatternTile imageTile(const Image& img) {
    PatternTile tile;
    tile.width = img.width;
    tile.height = img.height;
    tile.pixels.resize(size_t(img.width) * size_t(img.height));
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            const uint8_t* p = img.data.data() + size_t(y) * img.stride + size_t(x) * 3;
            tile.pixels[size_t(y) * size_t(img.width) + size_t(x)] = {p[0], p[1], p[2]};
        }
    return tile;
}

Image cropImage(Image img, int x, int y, int w, int h) {
    x = std::clamp(x, 0, img.width);
    y = std::clamp(y, 0, img.height);
    w = std::clamp(w, 0, img.width - x);
    h = std::clamp(h, 0, img.height - y);
    if (x == 0 && y == 0 && w == img.width && h == img.height)
        return img;
    Image out;
    out.width = w;
    out.height = h;
    out.format = img.format;
    out.stride = size_t(w) * 3;
    out.data.resize(out.stride * size_t(h));
    for (int r = 0; r < h; ++r)
        std::copy_n(img.data.data() + size_t(y + r) * img.stride + size_t(x) * 3, out.stride,
                    out.data.data() + size_t(r) * out.stride);
    return out;
}

DibResult decodeDib(Bytes info, Bytes bits, bool paletteIndices) {
    DibResult r;
    const uint32_t headerSize = info.u32(0);
    int64_t width = 0, height = 0;
    int bitCount = 0;
    uint32_t compression = BI_RGB;
    uint32_t colorsUsed = 0;
    size_t tableEntrySize = 4;
    if (headerSize == 12) { // BITMAPCOREHEADER
        width = info.u16(4);
        height = info.u16(6);
        bitCount = info.u16(10);
        tableEntrySize = 3;
    } else if (headerSize >= 40 && info.has(0, 40)) {
        width = info.i32(4);
        height = info.i32(8);
        bitCount = info.u16(14);
        compression = info.u32(16);
        colorsUsed = info.u32(32);
    } else {
        r.problem = "a bitmap with an unknown header";
        return r;
    }
    const bool topDown = height < 0;
    if (topDown)
        height = -height;
    if (width <= 0 || height <= 0 || width > 65535 || height > 65535) {
        r.problem = "a bitmap of impossible size";
        return r;
    }
    if (size_t(width) * size_t(height) > kMaxDibPixels) {
        r.problem = "a bitmap of " + std::to_string(width) + "x" + std::to_string(height) + " pixels, too large to draw";
        return r;
    }
    if (compression == BI_JPEG || compression == BI_PNG)
        return decodePngOrJpeg(bits);
    const bool rle = compression == BI_RLE8 || compression == BI_RLE4;
    if (!(bitCount == 1 || bitCount == 4 || bitCount == 8 || bitCount == 16 || bitCount == 24 || bitCount == 32) ||
        (compression == BI_RLE8 && bitCount != 8) || (compression == BI_RLE4 && bitCount != 4) ||
        (compression > BI_ALPHABITFIELDS)) {
        r.problem = "a bitmap of " + std::to_string(bitCount) + " bits a pixel in compression " + std::to_string(compression);
        return r;
    }

    // Colour table (or the bit-field masks, which follow a 40-byte header).
    std::array<Rgb, 256> palette{};
    uint32_t masks[3] = {0x7c00, 0x03e0, 0x001f};
    if (bitCount == 32)
        masks[0] = 0xff0000, masks[1] = 0xff00, masks[2] = 0xff;
    if (bitCount <= 8) {
        const size_t entries = colorsUsed ? std::min<size_t>(colorsUsed, 256) : (size_t(1) << bitCount);
        for (size_t i = 0; i < entries; ++i) {
            const size_t o = headerSize + i * (paletteIndices ? 2 : tableEntrySize);
            if (paletteIndices) {
                const uint8_t g = uint8_t(std::min<uint32_t>(info.u16(o), 255));
                palette[i] = {g, g, g};
            } else if (info.has(o, 3)) {
                palette[i] = {info.u8(o + 2), info.u8(o + 1), info.u8(o)};
            }
        }
        // A two-colour table that is missing stands for black and white.
        if (bitCount == 1 && !info.has(headerSize, 8))
            palette[1] = Rgb::white();
    } else if (compression == BI_BITFIELDS || compression == BI_ALPHABITFIELDS) {
        constexpr size_t o = 40; // right after the first 40 bytes, in the V4/V5 headers too
        if (!info.has(o, 12)) {
            r.problem = "a bitmap without its colour masks";
            return r;
        }
        masks[0] = info.u32(o), masks[1] = info.u32(o + 4), masks[2] = info.u32(o + 8);
    }
    const Field fr = fieldOf(masks[0]), fg = fieldOf(masks[1]), fb = fieldOf(masks[2]);

    Image img;
    img.width = int(width);
    img.height = int(height);
    img.format = Image::Format::Rgb24;
    img.stride = size_t(width) * 3;

    std::vector<uint8_t> indices;
    size_t rowBytes = 0;
    if (rle) {
        if (!expandRle(bits, compression == BI_RLE4, img.width, img.height, indices))
            r.problem = "a run-length bitmap that ends early";
    } else {
        rowBytes = ((size_t(width) * size_t(bitCount) + 31) / 32) * 4;
        if (rowBytes * size_t(height) > bits.size) {
            r.problem = "a bitmap whose pixels run past the end of its record";
            return r;
        }
    }
    img.data.resize(img.stride * size_t(height));
    for (int y = 0; y < img.height; ++y) {
        const int srcRow = topDown ? y : img.height - 1 - y;
        uint8_t* out = img.data.data() + size_t(y) * img.stride;
        if (rle) {
            const uint8_t* in = indices.data() + size_t(srcRow) * size_t(width);
            for (int x = 0; x < img.width; ++x, out += 3) {
                const Rgb c = palette[in[x]];
                out[0] = c.r, out[1] = c.g, out[2] = c.b;
            }
            continue;
        }
        const uint8_t* in = bits.data + size_t(srcRow) * rowBytes;
        for (int x = 0; x < img.width; ++x, out += 3) {
            Rgb c;
            switch (bitCount) {
            case 1: c = palette[(in[x >> 3] >> (7 - (x & 7))) & 1]; break;
            case 4: c = palette[(in[x >> 1] >> ((x & 1) ? 0 : 4)) & 0x0f]; break;
            case 8: c = palette[in[x]]; break;
            case 16: {
                const uint32_t v = uint32_t(in[2 * x]) | uint32_t(in[2 * x + 1]) << 8;
                c = {fr.extract(v, masks[0]), fg.extract(v, masks[1]), fb.extract(v, masks[2])};
                break;
            }
            case 24: c = {in[3 * x + 2], in[3 * x + 1], in[3 * x]}; break;
            default: {
                const uint8_t* q = in + 4 * size_t(x);
                const uint32_t v = uint32_t(q[0]) | uint32_t(q[1]) << 8 | uint32_t(q[2]) << 16 | uint32_t(q[3]) << 24;
                c = {fr.extract(v, masks[0]), fg.extract(v, masks[1]), fb.extract(v, masks[2])};
                break;
            }
            }
            out[0] = c.r, out[1] = c.g, out[2] = c.b;
        }
    }
    r.image = std::move(img);
    return r;
}

} // namespace qx::emf
