// Bitmap records beyond plain DIBs: JPEG and PNG payloads (BI_JPEG, BI_PNG), parallelogram
// transfers (EMR_PLGBLT) and the monochrome mask of EMR_MASKBLT.

#include "emf_writer.h"
#include "played.h"

#include "common/diagnostics.h"
#include "common/job.h"
#include "emf/dib.h"
#include "emf/emf.h"
#include "render/recording_device.h"

#include <gtest/gtest.h>

#include <cairo.h>
#include <jpeglib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qx::emf {
namespace {

using test::Buffer;
using test::EmfWriter;
using test::Played;

// A BITMAPINFOHEADER of w x h at bits a pixel in compression, with colours colour-table entries.
Buffer infoHeader(int w, int h, int bits, uint32_t compression, uint32_t imageSize,
                  std::initializer_list<uint32_t> colours = {}) {
    Buffer b;
    test::put32(b, 40);
    test::put32(b, uint32_t(w));
    test::put32(b, uint32_t(h));
    test::put16(b, 1);
    test::put16(b, uint16_t(bits));
    test::put32(b, compression);
    test::put32(b, imageSize);
    for (int i = 0; i < 4; ++i)
        test::put32(b, 0);
    for (uint32_t c : colours)
        test::put32(b, c);
    return b;
}

Buffer pngOf(int w, int h, const std::vector<uint32_t>& argb) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
    cairo_surface_flush(s);
    unsigned char* d = cairo_image_surface_get_data(s);
    const int stride = cairo_image_surface_get_stride(s);
    for (int y = 0; y < h; ++y)
        std::copy_n(argb.begin() + y * w, w, reinterpret_cast<uint32_t*>(d + y * stride));
    cairo_surface_mark_dirty(s);
    Buffer out;
    cairo_surface_write_to_png_stream(
        s,
        [](void* closure, const unsigned char* data, unsigned int length) {
            auto* o = static_cast<Buffer*>(closure);
            o->insert(o->end(), data, data + length);
            return CAIRO_STATUS_SUCCESS;
        },
        &out);
    cairo_surface_destroy(s);
    return out;
}

// A w x h JPEG of one grey level.
Buffer jpegOf(int w, int h, uint8_t grey) {
    jpeg_compress_struct c{};
    jpeg_error_mgr err{};
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char* mem = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &mem, &size);
    c.image_width = JDIMENSION(w);
    c.image_height = JDIMENSION(h);
    c.input_components = 3;
    c.in_color_space = JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, 95, TRUE);
    jpeg_start_compress(&c, TRUE);
    std::vector<uint8_t> row(size_t(w) * 3, grey);
    while (c.next_scanline < c.image_height) {
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&c, &r, 1);
    }
    jpeg_finish_compress(&c);
    Buffer out(mem, mem + size);
    jpeg_destroy_compress(&c);
    std::free(mem);
    return out;
}

Rgb pixel(const Image& img, int x, int y) {
    const uint8_t* p = img.data.data() + size_t(y) * img.stride + size_t(x) * 3;
    return {p[0], p[1], p[2]};
}

TEST(EmfBitmaps, PngPayloadsAreDecodedAndBlendedOntoWhite) {
    // Premultiplied ARGB: opaque red, opaque green, opaque blue, half-transparent black.
    const Buffer png = pngOf(2, 2, {0xffff0000, 0xff00ff00, 0xff0000ff, 0x80000000});
    const Buffer info = infoHeader(2, 2, 0, 5, uint32_t(png.size()));
    const DibResult r = decodeDib({info.data(), info.size()}, {png.data(), png.size()});
    ASSERT_TRUE(r.image) << r.problem;
    EXPECT_EQ(r.image->width, 2);
    EXPECT_EQ(pixel(*r.image, 0, 0), (Rgb{255, 0, 0}));
    EXPECT_EQ(pixel(*r.image, 1, 0), (Rgb{0, 255, 0}));
    EXPECT_EQ(pixel(*r.image, 0, 1), (Rgb{0, 0, 255}));
    EXPECT_EQ(pixel(*r.image, 1, 1), (Rgb{127, 127, 127}));
    EXPECT_TRUE(r.hasAlpha);
}

TEST(EmfBitmaps, JpegPayloadsAreDecoded) {
    const Buffer jpg = jpegOf(16, 8, 100);
    const Buffer info = infoHeader(16, 8, 0, 4, uint32_t(jpg.size()));
    const DibResult r = decodeDib({info.data(), info.size()}, {jpg.data(), jpg.size()});
    ASSERT_TRUE(r.image) << r.problem;
    EXPECT_EQ(r.image->width, 16);
    EXPECT_EQ(r.image->height, 8);
    const Rgb c = pixel(*r.image, 7, 5);
    EXPECT_NEAR(c.r, 100, 2);
    EXPECT_NEAR(c.g, 100, 2);
    EXPECT_FALSE(r.hasAlpha);
}

TEST(EmfBitmaps, DamagedAndHugeCompressedPayloadsAreRefused) {
    const Buffer png = pngOf(4, 4, std::vector<uint32_t>(16, 0xff000000));
    const Buffer jpg = jpegOf(8, 8, 0);
    for (const Buffer* f : {&png, &jpg}) {
        for (size_t cut = 0; cut < f->size(); cut += 7) {
            const DibResult r = decodePngOrJpeg({f->data(), cut});
            if (!r.image) {
                EXPECT_FALSE(r.problem.empty());
            }
        }
        for (size_t at = 0; at < f->size(); ++at) {
            Buffer bad = *f;
            bad[at] ^= 0x5a;
            decodePngOrJpeg({bad.data(), bad.size()}); // never crashes
        }
    }
    // A PNG header claiming 60000 x 60000 pixels is refused before anything is allocated.
    Buffer huge = png;
    for (size_t at : {size_t(16), size_t(20)}) {
        huge[at] = 0, huge[at + 1] = 0, huge[at + 2] = 0xea, huge[at + 3] = 0x60;
    }
    const DibResult r = decodePngOrJpeg({huge.data(), huge.size()});
    EXPECT_FALSE(r.image);
    EXPECT_NE(r.problem.find("impossible size"), std::string::npos);
    EXPECT_FALSE(decodePngOrJpeg({jpg.data(), 3}).image);
}

// The identity XFORM (six floats).
void putIdentityXform(Buffer& b) {
    for (float v : {1.f, 0.f, 0.f, 1.f, 0.f, 0.f}) {
        uint32_t u;
        std::memcpy(&u, &v, 4);
        test::put32(b, u);
    }
}

// A 24-bit bitmap of w x 1 pixels (bottom-up, one row) after its header.
Buffer rowBitmap(int w) {
    Buffer b = infoHeader(w, 1, 24, 0, 0);
    for (int x = 0; x < w; ++x)
        for (uint8_t v : {uint8_t(0), uint8_t(0), uint8_t(255)})
            b.push_back(v);
    while (b.size() % 4)
        b.push_back(0);
    return b;
}

// A one-bit mask of w x 1 pixels with the given bits (most significant first), black and white.
Buffer maskBitmap(int w, uint8_t bits) {
    Buffer b = infoHeader(w, 1, 1, 0, 0, {0x000000, 0xffffff});
    for (uint8_t v : {bits, uint8_t(0), uint8_t(0), uint8_t(0)})
        b.push_back(v);
    return b;
}

// EMR_PLGBLT of a 4 x 1 bitmap onto the parallelogram with corners a, b, c; with a mask.
Buffer plgblt(std::initializer_list<int32_t> corners, bool withMask) {
    const Buffer bmp = rowBitmap(4), mask = maskBitmap(4, 0xA0);
    Buffer body;
    for (int i = 0; i < 4; ++i)
        test::put32(body, 0); // bounds
    for (int32_t v : corners)
        test::put32(body, uint32_t(v));
    for (int32_t v : {0, 0, 4, 1})
        test::put32(body, uint32_t(v));
    putIdentityXform(body);
    test::put32(body, 0xffffff);
    test::put32(body, 0); // usage
    const uint32_t bmiAt = 140, bitsAt = bmiAt + 40;
    for (uint32_t v : {bmiAt, 40u, bitsAt, uint32_t(bmp.size() - 40)})
        test::put32(body, v);
    const uint32_t maskAt = bmiAt + uint32_t(bmp.size());
    for (uint32_t v : {0u, 0u, 0u})
        test::put32(body, v); // xMask, yMask, usage
    if (withMask) {
        for (uint32_t v : {maskAt, 48u, maskAt + 48, 4u})
            test::put32(body, v);
    } else {
        for (int i = 0; i < 4; ++i)
            test::put32(body, 0);
    }
    body.insert(body.end(), bmp.begin(), bmp.end());
    body.insert(body.end(), mask.begin(), mask.end());
    return body;
}

TEST(EmfBitmaps, ParallelogramTransfersMapThroughTheirCorners) {
    // 4 x 1 source onto (0,0) (40,0) (0,8): stretched; then turned a quarter.
    const Buffer emf = EmfWriter(100, 50, 4)
                           .raw(79, plgblt({0, 0, 40, 0, 0, 8}, false))
                           .raw(79, plgblt({0, 0, 0, 40, -8, 0}, false))
                           .finish();
    Played r(emf);
    // 10 reference pixels a source pixel: 7.09 pt.
    EXPECT_TRUE(r.has("image 4x1 rgb [7.09 0 0 5.67 0 0]")) << r.calls;
    EXPECT_TRUE(r.has("image 4x1 rgb [0 7.09 -5.67 0 0 0]")) << r.calls;
}

TEST(EmfBitmaps, MasksLimitTheTransferToTheirSetBits) {
    // The mask 1010: two one-pixel rectangles where the source goes, the rest left alone.
    const Buffer emf = EmfWriter(100, 50, 4).raw(79, plgblt({0, 0, 40, 0, 0, 8}, true)).finish();
    Played r(emf);
    ASSERT_EQ(r.count("image"), 1u) << r.calls;
    EXPECT_TRUE(r.has("image 4x1 rgb [7.09 0 0 5.67 0 0] #ffffff rop=204 srcO patO clip=1")) << r.calls;

    // EMR_MASKBLT with a ROP4 of SRCCOPY where set and BLACKNESS elsewhere: both parts drawn.
    const Buffer bmp = rowBitmap(4), mask = maskBitmap(4, 0xA0);
    Buffer body;
    for (int i = 0; i < 4; ++i)
        test::put32(body, 0);
    for (int32_t v : {0, 0, 4, 1})
        test::put32(body, uint32_t(v)); // destination
    test::put32(body, 0x00CC0020);      // ROP4: background BLACKNESS (0x00), foreground SRCCOPY
    for (int32_t v : {0, 0})
        test::put32(body, uint32_t(v));
    putIdentityXform(body);
    test::put32(body, 0xffffff);
    test::put32(body, 0);
    const uint32_t bmiAt = 128, maskAt = bmiAt + uint32_t(bmp.size());
    for (uint32_t v : {bmiAt, 40u, bmiAt + 40, uint32_t(bmp.size() - 40)})
        test::put32(body, v);
    for (uint32_t v : {0u, 0u, 0u, maskAt, 48u, maskAt + 48, 4u})
        test::put32(body, v);
    body.insert(body.end(), bmp.begin(), bmp.end());
    body.insert(body.end(), mask.begin(), mask.end());
    Played m(EmfWriter(100, 50, 4).raw(78, body).finish());
    ASSERT_EQ(m.count("image"), 2u) << m.calls;
    EXPECT_TRUE(m.has("rop=204 srcO patO clip=1")) << m.calls;
    EXPECT_TRUE(m.has("rop=0 srcO patO clip=1")) << m.calls;

    // A mask whose data runs past its record is left out with a warning; the source is drawn.
    Buffer bad = body;
    test::set32(bad, 108, 1u << 20); // the mask header's size
    Played b(EmfWriter(100, 50, 4).raw(78, bad).finish());
    EXPECT_EQ(b.count("image"), 1u) << b.calls;
    EXPECT_TRUE(b.diag.hasWarnings());
}

} // namespace
} // namespace qx::emf
