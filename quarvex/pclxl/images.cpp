// PCL XL images, raster patterns and masks: reading image rows (plain or compressed), drawing
// them through the current transform and raster operation, and defining and selecting patterns.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

#include "pclxl/raster_codec.h"

#include <cmath>
#include <cstring>

namespace qx::pclxl {

namespace {

// A selected pattern is a copy of its tile; saved states may hold many of them.
constexpr size_t kMaxPatternPixels = size_t(1) << 20;
constexpr int kMaxImageSide = 65535;
constexpr size_t kMaxStripBytes = size_t(8) << 20;

} // namespace

void Interpreter::beginImage(const Operator& op, bool pattern) {
    if (m_image.active)
        failOp("image or pattern already open");
    ImageState im;
    im.pattern = pattern;
    im.mapping = asInt(need(op, attr::ColorMapping).number());
    im.depth = asInt(need(op, attr::ColorDepth).number());
    const double w = need(op, attr::SourceWidth).number();
    const double h = need(op, attr::SourceHeight).number();
    const Point dest = xy(needXy(op, attr::DestinationSize));
    if (im.mapping != eDirectPixel && im.mapping != eIndexedPixel)
        failOp("unknown ColorMapping " + std::to_string(im.mapping));
    if (im.depth < e1Bit || im.depth > e8Bit)
        failOp("unknown ColorDepth " + std::to_string(im.depth));
    if (!(w >= 1) || !(h >= 1) || w > kMaxImageSide || h > kMaxImageSide)
        failOp("image size out of range");
    if (!std::isfinite(dest.x) || !std::isfinite(dest.y))
        failOp("unusable DestinationSize");
    im.width = int(w);
    im.height = int(h);
    im.destW = dest.x;
    im.destH = dest.y;
    im.color = m_gs.color;
    if (im.mapping == eIndexedPixel && im.color.palette.empty()) {
        // No palette: the indices run from black to white.
        const int n = 1 << (im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8);
        for (int i = 0; i < n; ++i) {
            const uint8_t g = uint8_t(i * 255 / (n - 1));
            im.color.palette.push_back({g, g, g});
        }
    }
    const int bits = im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8;
    const int comps = im.mapping == eDirectPixel && im.color.space == eRGB ? 3 : 1;
    im.seed.assign((size_t(im.width) * bits * comps + 7) / 8, 0);
    if (pattern) {
        if (size_t(im.width) * size_t(im.height) > kMaxPatternPixels)
            failOp("pattern larger than 1048576 pixels");
        im.patternId = asInt(need(op, attr::PatternDefineID).number());
        im.persistence = asInt(number(op, attr::PatternPersistence, 0));
        im.tile = std::make_shared<PatternTile>();
        im.tile->width = im.width;
        im.tile->height = im.height;
        im.tile->pixels.assign(size_t(im.width) * im.height, Rgb::white());
    } else {
        im.imageToPage = Matrix::translate(m_gs.cursor.x, m_gs.cursor.y) *
                         Matrix{m_gs.ctm.a, m_gs.ctm.b, m_gs.ctm.c, m_gs.ctm.d, 0, 0} *
                         Matrix::scale(im.destW / im.width, im.destH / im.height);
    }
    im.active = true;
    m_image = std::move(im);
}

void Interpreter::readImage(const Operator& op) {
    ImageState& im = m_image;
    const int start = asInt(need(op, attr::StartLine).number());
    const int count = asInt(need(op, attr::BlockHeight).number());
    const int compress = asInt(number(op, attr::CompressMode, eNoCompression));
    int pad = asInt(number(op, attr::PadBytesMultiple, 4));
    if (pad < 1 || pad > 4)
        pad = 4;
    if (start < 0 || count < 0)
        failOp("negative StartLine or BlockHeight");
    if (!op.hasData) {
        if (count == 0)
            return;
        failOp("missing image data");
    }
    const size_t rowBytes = im.seed.size();
    const size_t padded = compress == eDeltaRowCompression ? rowBytes : (rowBytes + pad - 1) / pad * pad;
    // Rows past the declared height are dropped.
    const int usable = std::max(0, std::min(count, im.height - start));
    const int chunkRows = int(std::max<size_t>(1, kMaxStripBytes / std::max<size_t>(padded * 3, 1)));
    std::vector<uint8_t> rows;
    bool damaged = false;
    switch (compress) {
    case eNoCompression: {
        const size_t have = op.dataSize / padded;
        const int n = int(std::min<size_t>(size_t(usable), have));
        if (size_t(count) * padded > op.dataSize)
            damaged = true;
        for (int r = 0; r < n; r += chunkRows) {
            const int k = std::min(chunkRows, n - r);
            rows.assign(op.data + size_t(r) * padded, op.data + size_t(r + k) * padded);
            deliverRows(rows, padded, start + r, k);
        }
        break;
    }
    case eRLECompression: {
        RunLengthDecoder dec(op.data, op.dataSize);
        for (int r = 0; r < usable; r += chunkRows) {
            const int k = std::min(chunkRows, usable - r);
            rows.clear();
            const size_t got = dec.read(size_t(k) * padded, rows);
            const int full = int(got / padded);
            if (full > 0)
                deliverRows(rows, padded, start + r, full);
            if (full < k) {
                damaged = true;
                break;
            }
        }
        if (dec.damaged())
            damaged = true;
        break;
    }
    case eDeltaRowCompression: {
        DeltaRowDecoder dec(op.data, op.dataSize);
        for (int r = 0; r < usable;) {
            const int k = std::min(chunkRows, usable - r);
            rows.clear();
            int got = 0;
            while (got < k && dec.nextRow(im.seed)) {
                rows.insert(rows.end(), im.seed.begin(), im.seed.end());
                ++got;
            }
            if (got > 0)
                deliverRows(rows, rowBytes, start + r, got);
            r += got;
            if (got < k) {
                damaged = true;
                break;
            }
        }
        if (dec.damaged())
            damaged = true;
        break;
    }
    case eJPEGCompression: {
        if (im.mapping != eDirectPixel || im.depth != e8Bit)
            failOp("JPEG data needs direct 8-bit pixels");
        JpegInfo info;
        std::string error;
        const int comps = im.color.space == eRGB ? 3 : 1;
        std::vector<uint8_t> converted;
        bool mismatch = false;
        const bool ok = decodeJpeg(op.data, op.dataSize, im.width, info,
            [&](const uint8_t* data, int first, int n) {
                if (info.components != comps && !(info.components == 3 || info.components == 1)) {
                    mismatch = true;
                    return;
                }
                const int line = start + first;
                const int k = std::max(0, std::min(n, im.height - line));
                if (k == 0)
                    return;
                converted.assign(rowBytes * k, 0xFF);
                for (int r = 0; r < k; ++r) {
                    const uint8_t* src = data + size_t(r) * info.width * info.components;
                    uint8_t* dst = converted.data() + size_t(r) * rowBytes;
                    for (int x = 0; x < std::min(info.width, im.width); ++x) {
                        if (comps == info.components) {
                            std::memcpy(dst + size_t(x) * comps, src + size_t(x) * comps, comps);
                        } else if (comps == 3) {
                            dst[x * 3] = dst[x * 3 + 1] = dst[x * 3 + 2] = src[x];
                        } else {
                            const uint8_t* p = src + size_t(x) * 3;
                            dst[x] = uint8_t((p[0] * 30 + p[1] * 59 + p[2] * 11) / 100);
                        }
                    }
                }
                deliverRows(converted, rowBytes, line, k);
            },
            error);
        if (!ok)
            failOp("damaged JPEG data (" + error + ")");
        if (mismatch)
            failOp("JPEG data does not match the colour space");
        break;
    }
    default: failOp("unknown CompressMode " + std::to_string(compress));
    }
    if (damaged)
        failOp("image data shorter than BlockHeight");
}

void Interpreter::deliverRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count) {
    ImageState& im = m_image;
    if (count <= 0 || startLine >= im.height)
        return;
    if (im.pattern) {
        drawRows(rows, rowBytes, startLine, count);
        return;
    }
    if (im.pendingCount > 0 && (startLine != im.pendingStart + im.pendingCount || rowBytes != im.pendingRowBytes))
        flushImageRows();
    // A strip is drawn as up to 3 bytes a pixel: keep it within the strip budget.
    const int maxRows = int(std::max<size_t>(1, kMaxStripBytes / std::max<size_t>(size_t(im.width) * 3, 1)));
    if (im.pendingCount == 0) {
        im.pendingStart = startLine;
        im.pendingRowBytes = rowBytes;
        m_stripRows.clear();
        // Room for a whole strip at once, so that gathering rows never moves them.
        const size_t strip = size_t(maxRows) * rowBytes;
        if (m_stripRows.capacity() < strip && strip <= kMaxStripBytes)
            m_stripRows.reserve(strip);
    }
    m_stripRows.insert(m_stripRows.end(), rows.begin(), rows.begin() + std::ptrdiff_t(size_t(count) * rowBytes));
    im.pendingCount += count;
    if (im.pendingCount >= maxRows)
        flushImageRows();
}

void Interpreter::flushImageRows() {
    ImageState& im = m_image;
    if (im.pendingCount <= 0)
        return;
    const int start = im.pendingStart, count = im.pendingCount;
    im.pendingCount = 0;
    drawRows(m_stripRows, im.pendingRowBytes, start, count);
    m_stripRows.clear();
}

namespace {

// The raster operation that gives, with a black source, what rop gives with a white one: each
// result bit for S = 0 is rop's bit for S = 1 (bit index T*4 + S*2 + D).
uint8_t ropWithWhiteSource(uint8_t rop) {
    uint8_t out = 0;
    for (int i = 0; i < 8; ++i)
        if (rop & (1 << (i | 2)))
            out = uint8_t(out | (1 << i));
    return out;
}

} // namespace

// Whether the device draws a picture placed by toPage smaller than its own pixels (then it
// averages the picture's pixels rather than sampling them).
bool Interpreter::drawnReduced(const Matrix& toPage) const {
    const auto inv = (m_dev.pageToDevice() * toPage).inverted();
    if (!inv)
        return false;
    return inv->b == 0 && inv->c == 0 && (std::fabs(inv->a) > 1 + 1e-9 || std::fabs(inv->d) > 1 + 1e-9);
}

void Interpreter::drawRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count) {
    ImageState& im = m_image;
    if (count <= 0 || startLine >= im.height)
        return;
    count = std::min(count, im.height - startLine);
    const int bits = im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8;
    const bool rgbDirect = im.mapping == eDirectPixel && im.color.space == eRGB;
    const bool grayOut = im.mapping == eDirectPixel ? im.color.space != eRGB
                                                    : std::all_of(im.color.palette.begin(), im.color.palette.end(),
                                                                  [](Rgb c) { return c.r == c.g && c.g == c.b; });
    auto sample = [&](const uint8_t* row, size_t index) -> unsigned {
        switch (bits) {
        case 1: return (row[index >> 3] >> (7 - (index & 7))) & 1;
        case 4: return (row[index >> 1] >> ((index & 1) ? 0 : 4)) & 0xF;
        default: return row[index];
        }
    };
    const unsigned maxv = (1u << bits) - 1;
    auto pixel = [&](const uint8_t* row, int x) -> Rgb {
        if (im.mapping == eIndexedPixel) {
            const unsigned i = sample(row, size_t(x));
            return i < im.color.palette.size() ? im.color.palette[i] : Rgb::black();
        }
        if (rgbDirect) {
            return {uint8_t(sample(row, size_t(x) * 3) * 255 / maxv), uint8_t(sample(row, size_t(x) * 3 + 1) * 255 / maxv),
                    uint8_t(sample(row, size_t(x) * 3 + 2) * 255 / maxv)};
        }
        const uint8_t g = uint8_t(sample(row, size_t(x)) * 255 / maxv);
        return {g, g, g};
    };
    if (im.pattern) {
        for (int r = 0; r < count; ++r) {
            const uint8_t* row = rows.data() + size_t(r) * rowBytes;
            Rgb* out = im.tile->pixels.data() + size_t(startLine + r) * im.width;
            for (int x = 0; x < im.width; ++x)
                out[x] = pixel(row, x);
        }
        return;
    }
    const Matrix strip = im.imageToPage * Matrix::translate(0, startLine);
    const Paint texture = m_gs.brush.kind == Paint::Kind::None ? Paint::solid(Rgb::black()) : m_gs.brush;
    // A one-bit black-and-white image is a mask of its black pixels, which spares the device a
    // full colour image. With a transparent source that is all; an opaque source paints its white
    // pixels as well, which is the same raster operation over the other pixels with its source
    // read as white (a mask's source is black). Pictures drawn smaller than their pixels stay
    // pictures then: the device reduces pictures and masks in different ways.
    if (bits == 1 && im.mapping == eIndexedPixel && im.color.palette.size() >= 2) {
        const Rgb c0 = im.color.palette[0], c1 = im.color.palette[1];
        const bool zeroInk = c0 == Rgb::black() && c1 == Rgb::white();
        const bool oneInk = c1 == Rgb::black() && c0 == Rgb::white();
        const bool opaque = !m_gs.rs.sourceTransparent;
        if ((zeroInk || oneInk) && (!opaque || !drawnReduced(strip))) {
            Mask& mask = m_stripMask;
            mask.width = im.width;
            mask.height = count;
            mask.stride = (size_t(im.width) + 7) / 8;
            mask.bits.resize(mask.stride * count);
            const uint8_t lastBits = im.width % 8 ? uint8_t(0xFF << (8 - im.width % 8)) : 0xFF;
            auto copyRows = [&](const uint8_t* from, size_t fromStride, bool invert) {
                const uint64_t flip = invert ? ~uint64_t(0) : 0;
                for (int r = 0; r < count; ++r) {
                    const uint8_t* row = from + size_t(r) * fromStride;
                    uint8_t* out = mask.bits.data() + size_t(r) * mask.stride;
                    size_t b = 0;
                    for (; b + 8 <= mask.stride; b += 8) {
                        uint64_t v;
                        std::memcpy(&v, row + b, 8);
                        v ^= flip;
                        std::memcpy(out + b, &v, 8);
                    }
                    for (; b < mask.stride; ++b)
                        out[b] = uint8_t(row[b] ^ uint8_t(flip));
                    out[mask.stride - 1] &= lastBits;
                }
            };
            copyRows(rows.data(), rowBytes, zeroInk);
            m_dev.fillMask(mask, strip, texture, m_gs.rs);
            if (opaque) {
                copyRows(rows.data(), rowBytes, oneInk);
                RenderState white = m_gs.rs;
                white.rop3 = ropWithWhiteSource(m_gs.rs.rop3);
                white.patternTransparent = false; // it applies where the source is not white
                m_dev.fillMask(mask, strip, texture, white);
            }
            drew();
            return;
        }
    }
    Image& img = m_stripImage;
    img.width = im.width;
    img.height = count;
    img.format = grayOut ? Image::Format::Gray8 : Image::Format::Rgb24;
    if (bits == 8 && im.mapping == eDirectPixel && (grayOut || rgbDirect)) {
        // The rows already are the picture: close up their padding in place and lend them
        // to the device (they are not needed afterwards).
        const size_t packed = size_t(im.width) * (grayOut ? 1 : 3);
        if (packed < rowBytes)
            for (int r = 1; r < count; ++r)
                std::memmove(rows.data() + size_t(r) * packed, rows.data() + size_t(r) * rowBytes, packed);
        rows.resize(packed * size_t(count));
        img.stride = packed;
        img.data.swap(rows);
        m_dev.drawImage(img, strip, texture, m_gs.rs);
        img.data.swap(rows);
        drew();
        return;
    }
    img.stride = size_t(im.width) * (grayOut ? 1 : 3);
    img.data.resize(img.stride * count);
    for (int r = 0; r < count; ++r) {
        const uint8_t* row = rows.data() + size_t(r) * rowBytes;
        uint8_t* out = img.data.data() + size_t(r) * img.stride;
        for (int x = 0; x < im.width; ++x) {
            const Rgb c = pixel(row, x);
            if (grayOut)
                out[x] = c.r;
            else {
                out[x * 3] = c.r;
                out[x * 3 + 1] = c.g;
                out[x * 3 + 2] = c.b;
            }
        }
    }
    m_dev.drawImage(img, strip, texture, m_gs.rs);
    drew();
}

void Interpreter::endImage() {
    flushImageRows();
    if (m_image.pattern) {
        Pattern p;
        p.tile = m_image.tile;
        p.destW = m_image.destW;
        p.destH = m_image.destH;
        p.persistence = m_image.persistence;
        m_patterns[m_image.patternId] = std::move(p);
    }
    m_image = ImageState{};
}

void Interpreter::selectPattern(int id, const Operator& op, Paint& into) {
    auto it = m_patterns.find(id);
    if (it == m_patterns.end())
        failOp("pattern " + std::to_string(id) + " is not defined");
    Pattern& pat = it->second;
    double dw = pat.destW, dh = pat.destH;
    if (const Value* nd = op.find(attr::NewDestinationSize)) {
        const Point s = xy(*nd);
        dw = s.x;
        dh = s.y;
    }
    Point origin{0, 0};
    if (const Value* o = op.find(attr::PatternOrigin))
        origin = xy(*o);
    const Matrix placement = m_gs.ctm * Matrix::translate(origin.x, origin.y) *
                             Matrix::scale(dw / pat.tile->width, dh / pat.tile->height);
    for (double v : {placement.a, placement.b, placement.c, placement.d, placement.e, placement.f})
        if (!std::isfinite(v))
            failOp("unusable pattern size or origin");
    auto same = [](const Matrix& a, const Matrix& b) {
        return a.a == b.a && a.b == b.b && a.c == b.c && a.d == b.d && a.e == b.e && a.f == b.f;
    };
    if (!pat.lastSelected || !same(pat.lastSelected->tileToPage, placement)) {
        auto tile = std::make_shared<PatternTile>(*pat.tile);
        tile->tileToPage = placement;
        pat.lastSelected = std::move(tile);
    }
    into = Paint::tiled(pat.lastSelected);
}

} // namespace qx::pclxl
