#include "render/page_geometry.h"

#include <cmath>

namespace qx {
namespace {

int sidePixels(double v) {
    if (!std::isfinite(v))
        return kMaxPageSidePx;
    const double r = std::round(v);
    if (r < 1)
        return 1;
    if (r > kMaxPageSidePx)
        return kMaxPageSidePx;
    return static_cast<int>(r);
}

bool usable(double v) { return std::isfinite(v) && v > 0; }

double pickDpi(double commandLine, double declared) {
    if (usable(commandLine))
        return commandLine;
    if (usable(declared))
        return declared;
    return 300;
}

} // namespace

PageGeometry computePageGeometry(const RasterOptions& options, const PageSpec& page) {
    double wPt = page.widthPt;
    double hPt = page.heightPt;
    if (!usable(wPt) || !usable(hPt)) {
        wPt = 612;
        hPt = 792;
    }

    PageGeometry g;
    if (options.fax == 0 || options.fax == 1) {
        const double lpi = options.fax == 0 ? 98 : 196;
        g.widthPx = 1728;
        g.heightPx = sidePixels(hPt / 72.0 * lpi);
        g.scaleX = 1728.0 / wPt;
        g.scaleY = lpi / 72.0;
        g.xdpi = 204;
        g.ydpi = lpi;
        g.depth = 1;
        return g;
    }

    g.depth = (options.depth == 1 || options.depth == 8) ? options.depth : 24;

    if (options.pageWidthPx > 0 || options.pageHeightPx > 0) {
        double w = 0, h = 0;
        if (options.pageWidthPx > 0 && options.pageHeightPx > 0) {
            w = options.pageWidthPx;
            h = options.pageHeightPx;
        } else if (options.pageWidthPx > 0) {
            w = options.pageWidthPx;
            h = w * hPt / wPt;
        } else {
            h = options.pageHeightPx;
            w = h * wPt / hPt;
        }
        g.widthPx = sidePixels(w);
        g.heightPx = sidePixels(h);
        g.scaleX = g.widthPx / wPt;
        g.scaleY = g.heightPx / hPt;
        g.xdpi = usable(options.dpiX) ? options.dpiX : g.widthPx / (wPt / 72.0);
        g.ydpi = usable(options.dpiY) ? options.dpiY : g.heightPx / (hPt / 72.0);
        return g;
    }

    const double dx = pickDpi(options.dpiX, page.declaredDpiX);
    const double dy = pickDpi(options.dpiY, page.declaredDpiY);
    g.widthPx = sidePixels(wPt / 72.0 * dx);
    g.heightPx = sidePixels(hPt / 72.0 * dy);
    g.scaleX = dx / 72.0;
    g.scaleY = dy / 72.0;
    g.xdpi = dx;
    g.ydpi = dy;
    return g;
}

} // namespace qx
