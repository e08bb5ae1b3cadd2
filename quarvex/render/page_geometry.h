#pragma once
// How a page of the job becomes a pixel grid: the image size, the scale from points to pixels
// on each axis, the resolution written into the file and the output depth. The rasterising
// device computes this at every beginPage; it is a free function so that tests (and the command
// line, for its messages) can ask for it without drawing anything.

#include "render/device.h"
#include "render/raster_device.h"

namespace qx {

struct PageGeometry {
    int widthPx = 1;
    int heightPx = 1;
    double scaleX = 300.0 / 72; // device pixels per point, across
    double scaleY = 300.0 / 72; // device pixels per point, down
    double xdpi = 300;          // the resolution to write into the file
    double ydpi = 300;
    int depth = 24;             // the output depth: 1, 8 or 24

    Matrix pageToDevice() const { return Matrix::scale(scaleX, scaleY); }
};

// The largest image side, in pixels, that the engine produces.
inline constexpr int kMaxPageSidePx = 65000;

// Rules, in order:
//  - fax (0 or 1): 1728 pixels across whatever the sheet's width, 98 or 196 lines per inch down
//    it, 204 x 98 or 204 x 196 written, black and white;
//  - a pixel size (-gw and/or -gh): the sheet is drawn straight into that many pixels, the
//    missing side following the sheet's aspect ratio; the written resolution is the -r value,
//    else what the pixel size over the sheet's size in inches comes to;
//  - else the resolution is -r, else the one the job declares, else 300, per axis.
// A sheet without a usable size is taken as Letter.
PageGeometry computePageGeometry(const RasterOptions& options, const PageSpec& page);

} // namespace qx
