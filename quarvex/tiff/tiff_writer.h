#pragma once
// The TIFF writer: a PageSink that appends every finished page to a multi-page TIFF file through
// libtiff. Pages are written as they come, so memory stays at one page; the "page n of total"
// numbers are completed by finish(), which patches them in place once the total is known.

#include "render/raster_device.h"
#include "tiff/strip_encoder.h"

#include <cstdint>
#include <string>

typedef struct tiff TIFF;

namespace qx::tiff {

// The compression numbers of the command line.
enum class Compression : int {
    None = 0,
    PackBits = 1,
    Lzw = 2,
    LzwPredictor = 3,
    G3OneD = 4,   // CCITT Group 3, one-dimensional, EOLs byte-aligned
    G3TwoD = 5,   // CCITT Group 3, two-dimensional, EOLs byte-aligned
    Deflate = 6,
    G4 = 7,
};

// CCITT codes describe black-and-white pages only.
bool isCcitt(Compression c);

struct TiffOptions {
    Compression compression = Compression::Deflate;
    int fax = -1;           // -1 = ordinary TIFF; 0 = Class F 204x98; 1 = Class F 204x196
    std::string software;   // the Software tag, e.g. "quarvex 2.0.0"
    bool bigTiff = false;   // BigTIFF (64-bit offsets) for files beyond 4 GB
};

class TiffWriter : public PageSink {
public:
    explicit TiffWriter(TiffOptions options);
    ~TiffWriter() override;
    TiffWriter(const TiffWriter&) = delete;
    TiffWriter& operator=(const TiffWriter&) = delete;

    // Starts the file at path (created or truncated). false: see error().
    bool open(const std::string& path);
    // Starts the file in fd, an empty file open for reading and writing, which stays the
    // caller's; name is for messages. false: see error().
    bool open(int fd, const std::string& name);
    bool writePage(const RasterPage& page) override;
    // Closes the file and writes the page total into every page. false: see error().
    bool finish();

    int pageCount() const { return m_pages; }
    // True when writing failed because the file outgrew the 4 GB of a classic TIFF file.
    bool tooLargeForClassicTiff() const { return m_tooLarge; }
    const std::string& error() const { return m_error; }
    // The strips compressed and the strips of one colour reused so far.
    const StripStats& stripStats() const { return m_strips.stats(); }
    // Whether strips may be compressed on a second thread (the bytes are the same either way).
    void setThreads(bool allowed) { m_strips.setThreads(allowed); }

private:
    bool fail(const std::string& message);
    bool patchPageTotals();

    TiffOptions m_options;
    TIFF* m_tif = nullptr;
    std::string m_path;
    int m_fd = -1; // the caller's file, when written through a descriptor
    int m_pages = 0;
    bool m_failed = false;
    bool m_tooLarge = false;
    std::string m_error;
    StripPipeline m_strips;
};

} // namespace qx::tiff
