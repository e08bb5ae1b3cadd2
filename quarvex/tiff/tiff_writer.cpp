#include "tiff/tiff_writer.h"

#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace qx::tiff {

namespace {

int libtiffErrorHandler(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
    auto* target = static_cast<std::string*>(user);
    char buf[512];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    if (target->empty()) {
        if (module && *module) {
            *target = module;
            *target += ": ";
        }
        *target += buf;
    }
    return 1; // handled: libtiff prints nothing itself
}

int libtiffWarningHandler(TIFF*, void*, const char*, const char*, va_list) {
    return 1; // libtiff's warnings are about tags we chose on purpose; keep them quiet
}

bool readAll(int fd, uint64_t offset, void* buf, size_t n) {
    auto* p = static_cast<uint8_t*>(buf);
    while (n > 0) {
        const ssize_t got = ::pread(fd, p, n, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        p += got;
        n -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return true;
}

bool writeAll(int fd, uint64_t offset, const void* buf, size_t n) {
    const auto* p = static_cast<const uint8_t*>(buf);
    while (n > 0) {
        const ssize_t put = ::pwrite(fd, p, n, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        p += put;
        n -= static_cast<size_t>(put);
        offset += static_cast<uint64_t>(put);
    }
    return true;
}

} // namespace

bool isCcitt(Compression c) {
    return c == Compression::G3OneD || c == Compression::G3TwoD || c == Compression::G4;
}

TiffWriter::TiffWriter(TiffOptions options) : m_options(std::move(options)) {}

TiffWriter::~TiffWriter() {
    if (m_tif)
        TIFFClose(m_tif);
}

bool TiffWriter::fail(const std::string& message) {
    m_failed = true;
    if (message.find("Maximum TIFF file size exceeded") != std::string::npos)
        m_tooLarge = true;
    if (m_error.empty())
        m_error = message;
    return false;
}

bool TiffWriter::open(const std::string& path) {
    m_path = path;
    m_fd = -1;
    m_error.clear();
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(opts, libtiffErrorHandler, &m_error);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, libtiffWarningHandler, nullptr);
    m_tif = TIFFOpenExt(path.c_str(), m_options.bigTiff ? "w8" : "w", opts);
    TIFFOpenOptionsFree(opts);
    if (!m_tif)
        return fail(m_error.empty() ? "cannot create the TIFF file" : m_error);
    return true;
}

bool TiffWriter::open(int fd, const std::string& name) {
    m_path = name;
    m_fd = fd;
    m_error.clear();
    // libtiff closes the descriptor it is given: give it a duplicate and keep the original
    // for completing the page numbers.
    const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (own < 0)
        return fail(std::string("cannot create the TIFF file: ") + std::strerror(errno));
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(opts, libtiffErrorHandler, &m_error);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, libtiffWarningHandler, nullptr);
    m_tif = TIFFFdOpenExt(own, name.c_str(), m_options.bigTiff ? "w8" : "w", opts);
    TIFFOpenOptionsFree(opts);
    if (!m_tif) {
        ::close(own);
        return fail(m_error.empty() ? "cannot create the TIFF file" : m_error);
    }
    return true;
}

bool TiffWriter::writePage(const RasterPage& page) {
    if (m_failed || !m_tif)
        return false;
    if (page.width <= 0 || page.height <= 0 || page.data.size() < page.stride * static_cast<size_t>(page.height))
        return fail("page buffer does not match its size");

    const bool fax = m_options.fax >= 0;
    Compression comp = m_options.compression;
    if (fax && !isCcitt(comp))
        comp = Compression::G3OneD;

    uint16_t bits = 8, samples = 1, photometric = PHOTOMETRIC_MINISBLACK;
    size_t rowBytes = static_cast<size_t>(page.width);
    switch (page.format) {
    case RasterPage::Format::Bilevel:
        bits = 1;
        photometric = PHOTOMETRIC_MINISWHITE;
        rowBytes = (static_cast<size_t>(page.width) + 7) / 8;
        break;
    case RasterPage::Format::Gray8:
        break;
    case RasterPage::Format::Rgb24:
        samples = 3;
        photometric = PHOTOMETRIC_RGB;
        rowBytes = static_cast<size_t>(page.width) * 3;
        break;
    }
    if (isCcitt(comp) && bits != 1)
        return fail("CCITT compression needs black-and-white pages");
    if (page.stride < rowBytes)
        return fail("page rows are shorter than the page width");

    // Fax readers expect the whole page in one strip; elsewhere strips of about 64 KB.
    uint32_t rowsPerStrip = static_cast<uint32_t>(page.height);
    if (!fax) {
        const size_t perStrip = std::max<size_t>(1, (64 * 1024) / std::max<size_t>(1, rowBytes));
        rowsPerStrip = static_cast<uint32_t>(std::min<size_t>(perStrip, static_cast<size_t>(page.height)));
    }
    double xdpi = page.xdpi > 0 ? page.xdpi : 300;
    double ydpi = page.ydpi > 0 ? page.ydpi : 300;
    if (fax) {
        xdpi = 204;
        ydpi = m_options.fax == 1 ? 196 : 98;
    }
    // The page's tags, on the file and on the handles that compress its strips.
    auto setTags = [&](TIFF* t) {
        bool ok = true;
        ok &= TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE) == 1;
        ok &= TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(page.width)) == 1;
        ok &= TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(page.height)) == 1;
        ok &= TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits) == 1;
        ok &= TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples) == 1;
        ok &= TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photometric) == 1;
        ok &= TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) == 1;
        ok &= TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB) == 1;
        ok &= TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) == 1;

        switch (comp) {
        case Compression::None:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE) == 1;
            break;
        case Compression::PackBits:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS) == 1;
            break;
        case Compression::Lzw:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW) == 1;
            break;
        case Compression::LzwPredictor:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW) == 1;
            // The horizontal predictor works on whole samples; 1-bit rows go without it.
            if (bits == 8)
                ok &= TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL) == 1;
            break;
        case Compression::G3OneD:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX3) == 1;
            ok &= TIFFSetField(t, TIFFTAG_GROUP3OPTIONS, static_cast<uint32_t>(GROUP3OPT_FILLBITS)) == 1;
            break;
        case Compression::G3TwoD:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX3) == 1;
            ok &= TIFFSetField(t, TIFFTAG_GROUP3OPTIONS,
                               static_cast<uint32_t>(GROUP3OPT_2DENCODING | GROUP3OPT_FILLBITS)) == 1;
            break;
        case Compression::Deflate:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE) == 1;
            ok &= TIFFSetField(t, TIFFTAG_ZIPQUALITY, 6) == 1;
            break;
        case Compression::G4:
            ok &= TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4) == 1;
            break;
        }

        ok &= TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH) == 1;
        ok &= TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(xdpi)) == 1;
        ok &= TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(ydpi)) == 1;
        // The page total is unknown yet: finish() patches it into every page.
        ok &= TIFFSetField(t, TIFFTAG_PAGENUMBER, static_cast<uint16_t>(m_pages), static_cast<uint16_t>(0)) == 1;
        if (!m_options.software.empty())
            ok &= TIFFSetField(t, TIFFTAG_SOFTWARE, m_options.software.c_str()) == 1;
        if (fax) {
            ok &= TIFFSetField(t, TIFFTAG_BADFAXLINES, static_cast<uint32_t>(0)) == 1;
            ok &= TIFFSetField(t, TIFFTAG_CLEANFAXDATA, static_cast<uint16_t>(CLEANFAXDATA_CLEAN)) == 1;
            ok &= TIFFSetField(t, TIFFTAG_CONSECUTIVEBADFAXLINES, static_cast<uint32_t>(0)) == 1;
        }

        ok &= TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rowsPerStrip) == 1;
        return ok;
    };
    TIFF* t = m_tif;
    if (!setTags(t))
        return fail(m_error.empty() ? "cannot set the TIFF tags" : m_error);

    // The strips, compressed apart (see StripPipeline) and stored as they come, in order.
    StripLayout layout;
    layout.rowsPerStrip = rowsPerStrip;
    layout.height = static_cast<uint32_t>(page.height);
    layout.rowBytes = rowBytes;
    layout.stride = page.stride;
    layout.pixelBytes = samples;
    layout.bilevel = bits == 1;
    layout.width = page.width;
    layout.inkTop = static_cast<uint32_t>(std::clamp(page.inkTop, 0, page.height));
    layout.inkBottom = static_cast<uint32_t>(std::clamp(page.inkBottom, page.inkTop, page.height));
    layout.blank = bits == 1 ? 0 : 255; // white: no bits set at 1 bit, 255 at 8 and 24
    // Only the horizontal predictor writes into the rows it is given; with 8-bit samples or
    // single bits libtiff swaps no bytes either.
    layout.codecWritesRows = comp == Compression::LzwPredictor;
    layout.ownCcitt = isCcitt(comp) && bits == 1;
    layout.ccitt = comp == Compression::G4       ? CcittEncoder::Scheme::G4
                   : comp == Compression::G3TwoD ? CcittEncoder::Scheme::G3TwoD
                                                 : CcittEncoder::Scheme::G3OneD;
    // Group 3 2-D coding starts a new 1-D row every 4 rows above 150 dpi (as stored), else every
    // 2, as libtiff's codec does.
    layout.ccittRowsPerGroup = static_cast<float>(ydpi) > 150 ? 4 : 2;
    // Strips of one colour compress alike while everything that shapes them stays the same.
    const uint64_t cacheKey = (uint64_t(static_cast<int>(comp)) << 56) ^ (uint64_t(fax ? 1 : 0) << 52) ^
                              (uint64_t(page.format) << 48) ^ (uint64_t(layout.ccittRowsPerGroup) << 44) ^
                              (uint64_t(rowsPerStrip) << 24) ^
                              uint64_t(page.width);
    const bool written = m_strips.run(layout, page.data.data(), cacheKey, setTags,
        [&](uint32_t strip, const uint8_t* bytes, size_t n) {
            return TIFFWriteRawStrip(t, strip, const_cast<uint8_t*>(bytes), static_cast<tmsize_t>(n)) ==
                   static_cast<tmsize_t>(n);
        });
    if (!written)
        return fail(m_error.empty() ? "cannot write the page" : m_error);
    if (TIFFWriteDirectory(t) != 1)
        return fail(m_error.empty() ? "cannot write the page" : m_error);
    ++m_pages;
    return true;
}

bool TiffWriter::finish() {
    if (!m_tif)
        return fail("the TIFF file is not open");
    if (m_failed) {
        TIFFClose(m_tif);
        m_tif = nullptr;
        return false;
    }
    // TIFFClose flushes; an error there lands in m_error through the handler.
    const std::string before = m_error;
    TIFFClose(m_tif);
    m_tif = nullptr;
    if (m_error != before)
        return fail(m_error);
    return patchPageTotals();
}

// Every page was written with PageNumber (n, 0); now that the total is known, overwrite the
// second value of each. Both shorts sit inside the directory entry itself, so the file keeps
// its layout and the result does not depend on anything but the pages.
bool TiffWriter::patchPageTotals() {
    const bool ownFd = m_fd < 0;
    const int fd = ownFd ? ::open(m_path.c_str(), O_RDWR | O_CLOEXEC) : m_fd;
    if (fd < 0)
        return fail(std::string("cannot reopen the TIFF file: ") + std::strerror(errno));
    bool ok = true;
    uint8_t header[8];
    if (!readAll(fd, 0, header, sizeof header)) {
        if (ownFd)
            ::close(fd);
        return fail("cannot read back the TIFF file");
    }
    const bool little = header[0] == 'I';
    auto get = [little](const uint8_t* p, int bytes) -> uint64_t {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i)
            v |= uint64_t(p[little ? i : bytes - 1 - i]) << (8 * i);
        return v;
    };
    const uint16_t total = static_cast<uint16_t>(m_pages);
    uint8_t totalBytes[2];
    if (little) {
        totalBytes[0] = static_cast<uint8_t>(total & 0xff);
        totalBytes[1] = static_cast<uint8_t>(total >> 8);
    } else {
        totalBytes[0] = static_cast<uint8_t>(total >> 8);
        totalBytes[1] = static_cast<uint8_t>(total & 0xff);
    }

    // Classic TIFF: 2-byte entry count, 12-byte entries (count field 4 bytes), 4-byte links.
    // BigTIFF: 8-byte entry count, 20-byte entries (count field 8 bytes), 8-byte links.
    const bool big = get(header + 2, 2) == 43;
    const int countSize = big ? 8 : 2, entrySize = big ? 20 : 12, fieldSize = big ? 8 : 4;
    uint64_t ifd = 0;
    if (big) {
        uint8_t first[8];
        ok = readAll(fd, 8, first, 8);
        ifd = ok ? get(first, 8) : 0;
    } else {
        ifd = get(header + 4, 4);
    }
    int seen = 0;
    while (ok && ifd != 0 && seen <= m_pages) {
        uint8_t countBytes[8];
        if (!readAll(fd, ifd, countBytes, countSize)) {
            ok = false;
            break;
        }
        const uint64_t count = get(countBytes, countSize);
        if (count > 4096) {
            ok = false;
            break;
        }
        std::vector<uint8_t> entries(static_cast<size_t>(count) * entrySize + fieldSize);
        if (!readAll(fd, ifd + countSize, entries.data(), entries.size())) {
            ok = false;
            break;
        }
        for (uint64_t i = 0; i < count; ++i) {
            const uint8_t* e = entries.data() + size_t(i) * entrySize;
            if (get(e, 2) == TIFFTAG_PAGENUMBER && get(e + 2, 2) == TIFF_SHORT && get(e + 4, fieldSize) == 2) {
                // The two shorts sit at the start of the value field; the total is the second.
                const uint64_t at = ifd + countSize + i * entrySize + 4 + fieldSize + 2;
                ok = writeAll(fd, at, totalBytes, 2);
                break;
            }
        }
        ifd = get(entries.data() + size_t(count) * entrySize, fieldSize);
        ++seen;
    }
    if (ok && seen != m_pages)
        ok = false;
    if (ownFd && ::close(fd) != 0)
        ok = false;
    return ok ? true : fail("cannot complete the page numbers in the TIFF file");
}

} // namespace qx::tiff
