// cairo is opened on first use: a process that only sizes bands has not loaded it, the first
// drawing call does, and drawing through the forwarders gives cairo's own pixels. The stride
// the engine computes without cairo is the one cairo computes.

#include <gtest/gtest.h>

#include <cairo.h>
#include <dlfcn.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

bool cairoMapped() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line))
        if (line.find("libcairo.so") != std::string::npos)
            return true;
    return false;
}

} // namespace

TEST(CairoLibrary, OpenedByTheFirstDrawingCallAndStridesMatchCairos) {
    ASSERT_FALSE(cairoMapped()) << "the test itself must not link cairo";

    const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, 10);
    EXPECT_EQ(stride, 12);
    EXPECT_FALSE(cairoMapped()) << "sizing a band opened cairo";

    std::vector<unsigned char> pixels(size_t(stride) * 4, 0);
    cairo_surface_t* s = cairo_image_surface_create_for_data(pixels.data(), CAIRO_FORMAT_A8, 10, 4, stride);
    EXPECT_TRUE(cairoMapped());
    cairo_t* cr = cairo_create(s);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_move_to(cr, 2, 1);
    cairo_line_to(cr, 7, 1);
    cairo_line_to(cr, 7, 3);
    cairo_line_to(cr, 2, 3);
    cairo_close_path(cr);
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(s);
    EXPECT_EQ(cairo_surface_status(s), CAIRO_STATUS_SUCCESS);
    cairo_surface_destroy(s);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 10; ++x)
            EXPECT_EQ(pixels[size_t(y) * size_t(stride) + size_t(x)], (x >= 2 && x < 7 && y >= 1 && y < 3) ? 255 : 0)
                << x << "," << y;

    // cairo's own stride function, from the library now loaded.
    void* lib = ::dlopen("libcairo.so.2", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(lib, nullptr);
    auto real = reinterpret_cast<int (*)(cairo_format_t, int)>(::dlsym(lib, "cairo_format_stride_for_width"));
    ASSERT_NE(real, nullptr);
    ASSERT_NE(real, &cairo_format_stride_for_width);
    for (cairo_format_t f : {CAIRO_FORMAT_A1, CAIRO_FORMAT_A8, CAIRO_FORMAT_RGB16_565, CAIRO_FORMAT_RGB24,
                             CAIRO_FORMAT_ARGB32, CAIRO_FORMAT_RGB30, CAIRO_FORMAT_INVALID}) {
        for (int w = 0; w < 5000; ++w)
            ASSERT_EQ(cairo_format_stride_for_width(f, w), real(f, w)) << int(f) << " " << w;
        for (int w : {-1, 65535, 1 << 24, 0x0fffffff, 0x7ffffff0, 0x7fffffff})
            ASSERT_EQ(cairo_format_stride_for_width(f, w), real(f, w)) << int(f) << " " << w;
    }
    ::dlclose(lib);
}
