#pragma once
// Plays one EMF metafile (Microsoft's Enhanced Metafile Format, with the graphics objects of
// the Windows Metafile Format) onto one page of a qx::Device.
//
// Coordinates go the way GDI takes them: world space (the world transform) to page space
// (logical units, mapped to the reference device by the mapping mode, window and viewport) to
// the reference device's pixels, whose size in millimetres the metafile header gives. Those
// millimetres become points on our page. Everything is transformed when its record is read,
// so the paths handed to the device are already in page points.
//
// Every record's length is checked against the metafile before its fields are read; fields
// that point inside a record (bitmaps, strings, arrays) are checked against that record. Save
// levels, clip entries and object handles are bounded, so hostile input costs time and memory
// in proportion to its size.

#include "emf/bytes.h"
#include "render/device.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qx {
class Diagnostics;
class FontLibrary;
}

namespace qx::emf {

class PlusPlayer;

// How deep SaveDC may nest, and how many clip paths may pile up; beyond them the records are
// skipped with a warning.
inline constexpr size_t kMaxSaveDepth = 256;
inline constexpr size_t kMaxClipEntries = 32;
// At most this many path points are kept for one path bracket.
inline constexpr size_t kMaxPathPoints = size_t(1) << 22;
// Clip regions and pattern brushes made on one page may hold at most this many path points
// and pixel bytes in all; past that, further ones are skipped with a warning.
inline constexpr size_t kMaxClipPoints = size_t(1) << 23;
inline constexpr size_t kMaxPatternBytes = size_t(64) << 20;

// The facts from the EMR_HEADER record that placing a page needs.
struct EmfHeader {
    int32_t boundsLeft = 0, boundsTop = 0, boundsRight = 0, boundsBottom = 0; // reference pixels
    int32_t frameLeft = 0, frameTop = 0, frameRight = 0, frameBottom = 0;     // 0.01 mm
    uint32_t bytes = 0;
    uint32_t records = 0;
    uint16_t handles = 0;
    int32_t devicePxX = 0, devicePxY = 0; // the reference device in pixels
    int32_t deviceMmX = 0, deviceMmY = 0; // ... and in millimetres
    double deviceUmX = 0, deviceUmY = 0;  // ... and in micrometres (0 = not given)
};

// Reads the header record at the start of data. False when data does not start with one.
bool readHeader(Bytes data, EmfHeader& header);

// True when data starts with an EMF header record (type 1 and the " EMF" signature).
bool isEmf(const uint8_t* data, size_t size);

// How many whole records the metafile holds before its end-of-file record or the first record
// whose size is impossible (the header included), and whether it ends properly.
struct MetafileWalk {
    size_t records = 0;
    bool intact = false;
};
MetafileWalk walkRecords(Bytes metafile);

struct PagePlacement {
    PageSpec page;
    double originXMm = 0; // the point of the reference device that lands on the page's top-left
    double originYMm = 0;
};

class Player {
public:
    Player(Device& device, Diagnostics& diag, const FontLibrary* fonts);
    ~Player();

    // Draws the metafile's records between beginPage and endPage (which the caller makes).
    // Returns false when the metafile was damaged (a warning has been given).
    bool play(Bytes metafile, const EmfHeader& header, const PagePlacement& placement);

    // A font definition record of the spool file (its type and the data after its head), for
    // this page and those after it. Warns when the font is not used.
    void addFont(uint32_t type, Bytes body);

    // Records played (for tests and benchmarks).
    size_t recordsPlayed() const;

private:
    friend class PlusPlayer;
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace qx::emf
