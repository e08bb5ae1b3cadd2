#pragma once
// Device-independent bitmaps as EMF records carry them: a BITMAPINFOHEADER (or the older
// BITMAPCOREHEADER), its colour table, and the pixel rows, bottom-up unless the height is
// negative, each row padded to 4 bytes. Uncompressed 1, 4, 8, 16, 24 and 32 bits a pixel,
// bit-field masks for 16 and 32, the RLE4/RLE8 run encodings, and JPEG and PNG payloads
// (BI_JPEG, BI_PNG) are read.

#include "emf/bytes.h"
#include "render/device.h"

#include <cstddef>
#include <optional>
#include <string>

namespace qx::emf {

// The largest bitmap decoded, in pixels: a bigger one is skipped rather than allowed to take
// memory far beyond what its page needs.
inline constexpr size_t kMaxDibPixels = size_t(1) << 25;

struct DibResult {
    std::optional<Image> image; // RGB, rows top to bottom
    std::string problem;        // why there is no image
    bool hasAlpha = false;      // some pixels were partly transparent (blended onto white)
};

// info: the BITMAPINFO (header and colour table); bits: the pixel data. paletteIndices: the
// colour table holds 16-bit palette indices (DIB_PAL_COLORS), which are taken as grey levels.
DibResult decodeDib(Bytes info, Bytes bits, bool paletteIndices = false);

// A whole PNG or JPEG file (told apart by its signature); transparent pixels are blended onto
// white.
DibResult decodePngOrJpeg(Bytes file);

// An RGB image as a pattern tile (laid on the page by the caller's tileToPage).
PatternTile imageTile(const Image& img);

// The part [x, x + w) x [y, y + h) of an RGB image (clamped to it); the whole image when it is all.
Image cropImage(Image img, int x, int y, int w, int h);

} // namespace qx::emf
