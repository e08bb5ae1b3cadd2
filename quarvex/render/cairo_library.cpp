// cairo, opened when a page first needs it: the rasterising device draws wide strokes, curved or
// clipped fills it cannot scan-convert itself, and EMF's PNG bitmaps through cairo, and most
// pages have none of these. Each cairo function the engine calls is forwarded here (a new call
// needs a line here, else the link fails).

#include "common/lazy_library.h"

#include <cairo.h>

namespace {
qx::LazyLibrary cairoLibrary(QX_CAIRO_SONAME, "cairo");
} // namespace

QX_LAZY_FORWARD(cairoLibrary, cairo_surface_t*, cairo_image_surface_create_for_data,
                (unsigned char* data, cairo_format_t format, int width, int height, int stride),
                (data, format, width, height, stride))
QX_LAZY_FORWARD(cairoLibrary, cairo_surface_t*, cairo_image_surface_create_from_png_stream,
                (cairo_read_func_t read, void* closure), (read, closure))
QX_LAZY_FORWARD(cairoLibrary, unsigned char*, cairo_image_surface_get_data, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, cairo_format_t, cairo_image_surface_get_format, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, int, cairo_image_surface_get_width, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, int, cairo_image_surface_get_height, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, int, cairo_image_surface_get_stride, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, cairo_status_t, cairo_surface_status, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_surface_flush, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_surface_destroy, (cairo_surface_t* s), (s))
QX_LAZY_FORWARD(cairoLibrary, cairo_t*, cairo_create, (cairo_surface_t* target), (target))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_destroy, (cairo_t* cr), (cr))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_antialias, (cairo_t* cr, cairo_antialias_t a), (cr, a))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_translate, (cairo_t* cr, double tx, double ty), (cr, tx, ty))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_scale, (cairo_t* cr, double sx, double sy), (cr, sx, sy))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_move_to, (cairo_t* cr, double x, double y), (cr, x, y))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_line_to, (cairo_t* cr, double x, double y), (cr, x, y))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_curve_to,
                (cairo_t* cr, double x1, double y1, double x2, double y2, double x3, double y3),
                (cr, x1, y1, x2, y2, x3, y3))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_close_path, (cairo_t* cr), (cr))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_fill_rule, (cairo_t* cr, cairo_fill_rule_t rule), (cr, rule))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_fill, (cairo_t* cr), (cr))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_line_width, (cairo_t* cr, double width), (cr, width))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_line_cap, (cairo_t* cr, cairo_line_cap_t cap), (cr, cap))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_line_join, (cairo_t* cr, cairo_line_join_t join), (cr, join))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_set_miter_limit, (cairo_t* cr, double limit), (cr, limit))
QX_LAZY_FORWARD(cairoLibrary, void, cairo_stroke, (cairo_t* cr), (cr))

// The row length cairo wants of an image surface, computed here as cairo computes it (whole
// bytes, rounded up to a multiple of 4): the device asks it to size its bands before it knows
// whether it will draw with cairo at all.
extern "C" int cairo_format_stride_for_width(cairo_format_t format, int width) {
    int bpp;
    switch (format) {
    case CAIRO_FORMAT_A1: bpp = 1; break;
    case CAIRO_FORMAT_A8: bpp = 8; break;
    case CAIRO_FORMAT_RGB16_565: bpp = 16; break;
    case CAIRO_FORMAT_RGB24:
    case CAIRO_FORMAT_ARGB32:
    case CAIRO_FORMAT_RGB30: bpp = 32; break;
    default: return -1;
    }
    if (unsigned(width) >= unsigned(0x7fffffff - 7) / unsigned(bpp))
        return -1;
    return ((bpp * width + 7) / 8 + 3) & -4;
}
