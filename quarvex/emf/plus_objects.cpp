// EMF+ objects: brushes, pens, paths, fonts, images, string formats and simple regions, read
// from their serialised forms with every field checked against the object's bytes.

#include "emf/plus_objects.h"

#include "emf/dib.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

enum : uint32_t { kBrush = 1, kPen = 2, kPath = 3, kRegion = 4, kImage = 5, kFont = 6, kStringFormat = 7 };

// The most pixels one EMF+ image may have (the same bound as DIBs).
constexpr size_t kMaxImagePixels = kMaxDibPixels;
constexpr size_t kMaxImageBytesPerPage = size_t(256) << 20;

bool finite(double v) { return std::isfinite(v); }

std::string readImage(Bytes data, PlusObject& obj, size_t& imageBytes);

// The largest texture brush image kept, in pixels.
constexpr size_t kMaxTexturePixels = size_t(1) << 20;

// A brush at offset o of data (its version first); "" when read.
std::string readBrush(Bytes data, size_t o, PlusBrush& brush, size_t& imageBytes) {
    const uint32_t type = data.u32(o + 4);
    if (!data.has(o, 12))
        return "a brush cut short";
    switch (type) {
    case 0: // SolidColor
        brush.kind = PlusBrush::Kind::Solid;
        brush.color = Argb::of(data.u32(o + 8));
        return "";
    case 1: // HatchFill: style, fore colour, back colour
        if (!data.has(o, 20))
            return "a hatch brush cut short";
        brush.kind = PlusBrush::Kind::Hatch;
        brush.hatch = data.u32(o + 8);
        brush.color = Argb::of(data.u32(o + 12));
        brush.back = Argb::of(data.u32(o + 16));
        return "";
    case 3: // PathGradient: flags, wrap mode, centre colour
        brush.kind = PlusBrush::Kind::Solid;
        brush.color = Argb::of(data.u32(o + 16));
        return "gradient brushes are drawn in one colour";
    case 4: { // LinearGradient: flags, wrap mode, rectangle, start and end colours, two
              // reserved fields, then a transform when flag 0x2 says so
        if (!data.has(o, 48))
            return "a gradient brush cut short";
        const uint32_t flags = data.u32(o + 8);
        brush.kind = PlusBrush::Kind::Linear;
        brush.x = data.f32(o + 16), brush.y = data.f32(o + 20), brush.w = data.f32(o + 24), brush.h = data.f32(o + 28);
        brush.color = Argb::of(data.u32(o + 32));
        brush.back = Argb::of(data.u32(o + 36));
        if (flags & 0x2)
            brush.gradient = readPlusMatrix(data, o + 48).value_or(Matrix{});
        if (!(finite(brush.x) && finite(brush.y) && finite(brush.w) && finite(brush.h)) || brush.w == 0) {
            brush.kind = PlusBrush::Kind::Solid;
            return "a gradient brush without a rectangle is drawn in its start colour";
        }
        if (flags & 0x1C)
            return "gradient blend factors and preset colours are left out (the gradient is even)";
        return "";
    }
    case 2: { // TextureFill: flags, wrap mode, a transform when flag 0x2 says so, the image
        const uint32_t flags = data.u32(o + 8);
        size_t at = o + 16;
        if (flags & 0x2) {
            brush.gradient = readPlusMatrix(data, at).value_or(Matrix{});
            at += 24;
        }
        PlusObject image;
        std::string problem = data.has(at, 8) ? readImage(data.sub(at, data.size - at), image, imageBytes)
                                              : "a texture brush without its image";
        brush.kind = PlusBrush::Kind::Solid;
        brush.color = {255, 128, 128, 128};
        if (image.image && size_t(image.image->width) * size_t(image.image->height) <= kMaxTexturePixels) {
            brush.kind = PlusBrush::Kind::Texture;
            brush.texture = image.image;
        } else if (problem.empty()) {
            problem = "a texture brush too large to tile is drawn in grey";
        }
        return problem;
    }
    default:
        brush.kind = PlusBrush::Kind::Solid;
        brush.color = {255, 128, 128, 128};
        return "brushes of type " + std::to_string(type) + " are drawn in grey";
    }
}

std::string readPen(Bytes data, PlusPen& pen, size_t& imageBytes) {
    // Version, type, then the pen data: flags, unit, width, optional fields, then the brush.
    if (!data.has(0, 20))
        return "a pen cut short";
    const uint32_t flags = data.u32(8);
    pen.unit = int(data.u32(12));
    const double width = data.f32(16);
    pen.width = finite(width) ? std::fabs(width) : 1;
    size_t o = 20;
    auto take4 = [&](uint32_t bit) -> bool {
        if (!(flags & bit))
            return false;
        o += 4;
        return data.has(o - 4, 4);
    };
    if (flags & 0x1) // a transform of the pen's own: its width scale is kept in the width
        o += 24;
    if (take4(0x2))
        pen.startCap = data.u32(o - 4);
    if (take4(0x4))
        pen.endCap = data.u32(o - 4);
    if (take4(0x8))
        pen.join = data.u32(o - 4);
    if (take4(0x10)) {
        const double m = data.f32(o - 4);
        pen.miterLimit = finite(m) && m >= 1 ? std::min(m, 100.0) : 10;
    }
    if (take4(0x20))
        pen.lineStyle = int(data.i32(o - 4));
    take4(0x40); // the cap of dashes
    if (take4(0x80)) {
        const double v = data.f32(o - 4);
        pen.dashOffset = finite(v) ? v : 0;
    }
    if (flags & 0x100) {
        const uint32_t n = data.u32(o);
        if (n > 64 || !data.has(o + 4, size_t(n) * 4))
            return "a pen whose dashes run past its end";
        for (uint32_t i = 0; i < n; ++i) {
            const double v = data.f32(o + 4 + size_t(i) * 4);
            pen.dashes.push_back(finite(v) && v > 0 ? std::min(v, 1000.0) : 1);
        }
        o += 4 + size_t(n) * 4;
    }
    take4(0x200); // alignment
    for (uint32_t bit : {0x400u, 0x800u, 0x1000u}) {
        if (!(flags & bit))
            continue;
        const uint32_t n = data.u32(o);
        const size_t bytes = bit == 0x400 ? size_t(n) * 4 : size_t(n);
        if (n > data.size || !data.has(o + 4, bytes))
            return "a pen whose line data run past its end";
        o += 4 + bytes;
    }
    if (!data.has(o, 12))
        return "a pen without its brush";
    return readBrush(data, o, pen.brush, imageBytes);
}

// One point type: the low nibble its kind (0 start, 1 line, 3 Bézier), 0x80 closes the figure.
std::string readPath(Bytes data, Path& out) {
    const uint32_t count = data.u32(4), flags = data.u32(8);
    if (!data.has(0, 12) || count > data.size)
        return "a path cut short";
    std::vector<Point> pts;
    // The newer layout's R flag (0x1000) makes both the points relative and the types
    // run-length encoded.
    const bool rle = flags & 0x1000;
    const uint16_t pointFlags = uint16_t((flags & 0x4000) | ((flags & 0x1800) ? 0x0800 : 0));
    const size_t used = readPlusPoints(data, 12, count, pointFlags, pts);
    if (count > 0 && used == 0)
        return "a path whose points run past its end";
    size_t o = 12 + used;
    std::vector<uint8_t> types;
    types.reserve(count);
    while (types.size() < count) {
        if (!data.has(o, 1))
            return "a path whose point types run past its end";
        if (rle && (data.u8(o) & 0x40)) {
            if (!data.has(o, 2))
                return "a path whose point types run past its end";
            const uint32_t run = data.u8(o) & 0x3f;
            for (uint32_t i = 0; i < run && types.size() < count; ++i)
                types.push_back(data.u8(o + 1));
            o += 2;
        } else {
            types.push_back(data.u8(o));
            o += 1;
        }
    }
    for (size_t i = 0; i < count;) {
        const uint8_t t = types[i];
        const int kind = t & 0x0f;
        if (kind == 3 && i + 2 < count && !out.empty()) {
            out.curveTo(pts[i], pts[i + 1], pts[i + 2]);
            const bool close = types[i + 2] & 0x80;
            i += 3;
            if (close)
                out.close();
            continue;
        }
        if (kind == 0 || out.empty())
            out.moveTo(pts[i]);
        else
            out.lineTo(pts[i]);
        if (t & 0x80)
            out.close();
        ++i;
    }
    return "";
}

// A region's node tree, taken when it is an intersection of rectangles, paths and "everything".
std::string readRegionNode(Bytes data, size_t& o, PlusObject& obj, int depth) {
    if (depth > 32 || !data.has(o, 4))
        return "a region cut short or nested too deep";
    const uint32_t type = data.u32(o);
    o += 4;
    switch (type) {
    case 0x10000000: { // a rectangle
        if (!data.has(o, 16))
            return "a region cut short";
        const double x = data.f32(o), y = data.f32(o + 4), w = data.f32(o + 8), h = data.f32(o + 12);
        o += 16;
        if (!(finite(x) && finite(y) && finite(w) && finite(h)))
            return "a region with a rectangle that is not finite";
        Path p;
        p.addRect(x, y, w, h);
        obj.region.push_back(std::move(p));
        return "";
    }
    case 0x10000001: { // a path, with its length first
        const uint32_t n = data.u32(o);
        if (!data.has(o + 4, n))
            return "a region whose path runs past its end";
        Path p;
        const std::string problem = readPath(data.sub(o + 4, n), p);
        o += 4 + n;
        obj.region.push_back(std::move(p));
        return problem;
    }
    case 0x10000002: { // empty
        Path p;
        p.addRect(0, 0, 0, 0);
        obj.region.push_back(std::move(p));
        return "";
    }
    case 0x10000003: return ""; // infinite: adds no limit
    case 1: {                   // intersection of its two children
        std::string problem = readRegionNode(data, o, obj, depth + 1);
        if (problem.empty())
            problem = readRegionNode(data, o, obj, depth + 1);
        return problem;
    }
    default:
        return "regions made by union, exclusion or exclusive-or are not read";
    }
}

std::string readRegion(Bytes data, PlusObject& obj) {
    // Version, the number of nodes, then the node tree.
    size_t o = 8;
    obj.region.clear();
    const std::string problem = readRegionNode(data, o, obj, 0);
    obj.regionInfinite = obj.region.empty();
    return problem;
}

// Pixels of an uncompressed EMF+ bitmap (rows top-down) in one of its pixel formats.
std::string readPixels(Bytes data, size_t o, int width, int height, int32_t stride, uint32_t format, PlusObject& obj,
                       size_t& budget) {
    const int bits = int((format >> 8) & 0xff);
    const bool indexed = format & 0x00010000;
    std::array<Argb, 256> palette{};
    if (indexed) {
        const uint32_t count = data.u32(o + 4);
        if (count > 256 || !data.has(o + 8, size_t(count) * 4))
            return "an image whose palette runs past its end";
        for (uint32_t i = 0; i < count; ++i)
            palette[i] = Argb::of(data.u32(o + 8 + size_t(i) * 4));
        o += 8 + size_t(count) * 4;
    }
    if (!(bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32) ||
        (bits <= 8 && !indexed))
        return "images of pixel format " + std::to_string(format) + " are not read";
    const size_t rowBytes = (size_t(width) * size_t(bits) + 7) / 8;
    if (stride < 0 || size_t(stride) < rowBytes)
        return "an image with an impossible row length";
    if (!data.has(o, size_t(stride) * size_t(height - 1) + rowBytes))
        return "an image whose pixels run past its end";
    Image img;
    img.width = width;
    img.height = height;
    img.stride = size_t(width) * 3;
    img.data.resize(img.stride * size_t(height));
    if (img.data.size() > budget)
        return "images too large in all for one page";
    budget -= img.data.size();
    const bool alpha = format == 0x0026200A || format == 0x000E200B || format == 0x00061007;
    const bool premultiplied = format == 0x000E200B;
    obj.imageHasAlpha = alpha || indexed;
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = data.data + o + size_t(y) * size_t(stride);
        uint8_t* out = img.data.data() + size_t(y) * img.stride;
        for (int x = 0; x < width; ++x, out += 3) {
            Argb c;
            switch (bits) {
            case 1: c = palette[(in[x >> 3] >> (7 - (x & 7))) & 1]; break;
            case 4: c = palette[(in[x >> 1] >> ((x & 1) ? 0 : 4)) & 0x0f]; break;
            case 8: c = palette[in[x]]; break;
            case 16: {
                const uint32_t v = uint32_t(in[2 * x]) | uint32_t(in[2 * x + 1]) << 8;
                if (format == 0x00021006) { // RGB 5-6-5
                    c = {255, uint8_t(((v >> 11) & 31) * 255 / 31), uint8_t(((v >> 5) & 63) * 255 / 63),
                         uint8_t((v & 31) * 255 / 31)};
                } else if (format == 0x00101004) { // grey
                    c = {255, uint8_t(v >> 8), uint8_t(v >> 8), uint8_t(v >> 8)};
                } else { // RGB 5-5-5, with a one-bit alpha in ARGB 1-5-5-5
                    c = {uint8_t(format == 0x00061007 && !(v & 0x8000) ? 0 : 255), uint8_t(((v >> 10) & 31) * 255 / 31),
                         uint8_t(((v >> 5) & 31) * 255 / 31), uint8_t((v & 31) * 255 / 31)};
                }
                break;
            }
            case 24: c = {255, in[3 * x + 2], in[3 * x + 1], in[3 * x]}; break;
            default: {
                const uint8_t* q = in + 4 * size_t(x);
                c = {alpha ? q[3] : uint8_t(255), q[2], q[1], q[0]};
                if (premultiplied && c.a > 0) {
                    c.r = uint8_t(std::min(255, c.r * 255 / c.a));
                    c.g = uint8_t(std::min(255, c.g * 255 / c.a));
                    c.b = uint8_t(std::min(255, c.b * 255 / c.a));
                }
                break;
            }
            }
            const Rgb rgb = c.onWhite();
            out[0] = rgb.r, out[1] = rgb.g, out[2] = rgb.b;
        }
    }
    obj.image = std::make_shared<const Image>(std::move(img));
    return "";
}

std::string readImage(Bytes data, PlusObject& obj, size_t& imageBytes) {
    const uint32_t type = data.u32(4);
    if (type == 2)
        return "images that are metafiles are not drawn";
    if (type != 1 || !data.has(0, 28))
        return "an image of unknown type " + std::to_string(type);
    const int32_t width = data.i32(8), height = data.i32(12), stride = data.i32(16);
    const uint32_t format = data.u32(20), storage = data.u32(24);
    size_t budget = imageBytes < kMaxImageBytesPerPage ? kMaxImageBytesPerPage - imageBytes : 0;
    const size_t before = budget;
    std::string problem;
    if (storage == 1) { // PNG, JPEG and the other compressed kinds
        DibResult r = decodePngOrJpeg(data.sub(28, data.size - 28));
        if (!r.image)
            return r.problem;
        if (r.image->data.size() > budget)
            return "images too large in all for one page";
        budget -= r.image->data.size();
        obj.imageHasAlpha = r.hasAlpha;
        obj.image = std::make_shared<const Image>(std::move(*r.image));
    } else {
        if (width <= 0 || height <= 0 || width > 65535 || height > 65535 ||
            size_t(width) * size_t(height) > kMaxImagePixels)
            return "an image of impossible size";
        problem = readPixels(data, 28, width, height, stride, format, obj, budget);
    }
    imageBytes += before - budget;
    return problem;
}

} // namespace

std::optional<Matrix> readPlusMatrix(Bytes data, size_t o) {
    const Matrix m{data.f32(o), data.f32(o + 4), data.f32(o + 8), data.f32(o + 12), data.f32(o + 16), data.f32(o + 20)};
    if (!data.has(o, 24) || !finiteMatrix(m))
        return std::nullopt;
    return m;
}

PlusRect readPlusRect(Bytes data, size_t o, bool compressed) {
    PlusRect r;
    if (compressed) {
        r = {double(data.i16(o)), double(data.i16(o + 2)), double(data.i16(o + 4)), double(data.i16(o + 6))};
    } else {
        r = {data.f32(o), data.f32(o + 4), data.f32(o + 8), data.f32(o + 12)};
        if (!(finite(r.x) && finite(r.y) && finite(r.w) && finite(r.h)))
            r = {};
    }
    return r;
}

size_t readPlusPoints(Bytes data, size_t offset, uint32_t count, uint16_t flags, std::vector<Point>& out) {
    out.clear();
    if (count == 0)
        return 0;
    if (flags & 0x0800) { // relative: 7-bit or 15-bit signed steps from the previous point
        if (count > data.size / 2)
            return 0;
        size_t o = offset;
        auto step = [&](double& v) {
            if (!data.has(o, 1))
                return false;
            const uint8_t b = data.u8(o);
            if (!(b & 0x80)) {
                v = int8_t(uint8_t(b << 1)) / 2;
                o += 1;
                return true;
            }
            if (!data.has(o, 2))
                return false;
            v = int16_t(uint16_t(((b & 0x7f) << 8 | data.u8(o + 1)) << 1)) / 2;
            o += 2;
            return true;
        };
        Point p;
        out.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            double dx = 0, dy = 0;
            if (!step(dx) || !step(dy)) {
                out.clear();
                return 0;
            }
            p = {p.x + dx, p.y + dy};
            out.push_back(p);
        }
        return o - offset;
    }
    const size_t per = (flags & 0x4000) ? 4 : 8;
    if (count > data.size / per || !data.has(offset, size_t(count) * per))
        return 0;
    out.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const size_t o = offset + size_t(i) * per;
        Point p = per == 4 ? Point{double(data.i16(o)), double(data.i16(o + 2))}
                           : Point{double(data.f32(o)), double(data.f32(o + 4))};
        if (!(finite(p.x) && finite(p.y)))
            p = {};
        out.push_back(p);
    }
    return size_t(count) * per;
}

std::string readPlusObject(uint32_t kind, Bytes data, PlusObject& obj, size_t& imageBytes) {
    obj = PlusObject{};
    std::string problem;
    switch (kind) {
    case kBrush:
        obj.kind = PlusObject::Kind::Brush;
        problem = readBrush(data, 0, obj.brush, imageBytes);
        break;
    case kPen:
        obj.kind = PlusObject::Kind::Pen;
        problem = readPen(data, obj.pen, imageBytes);
        break;
    case kPath:
        obj.kind = PlusObject::Kind::Path;
        problem = readPath(data, obj.path.path);
        break;
    case kRegion:
        obj.kind = PlusObject::Kind::Region;
        problem = readRegion(data, obj);
        break;
    case kImage:
        obj.kind = PlusObject::Kind::Image;
        problem = readImage(data, obj, imageBytes);
        break;
    case kFont: {
        obj.kind = PlusObject::Kind::Font;
        PlusFont& f = obj.font;
        const double em = data.f32(4);
        f.emSize = finite(em) && em > 0 ? em : 12;
        f.unit = int(data.u32(8));
        f.style = data.u32(12);
        const uint32_t n = data.u32(20);
        if (!data.has(24, size_t(std::min<uint32_t>(n, 64)) * 2)) {
            problem = "a font whose name runs past its end";
            break;
        }
        for (uint32_t i = 0; i < n && i < 64; ++i) {
            const uint16_t c = data.u16(24 + size_t(i) * 2);
            f.family.push_back(c >= 0x20 && c < 0x7f ? char(c) : '?');
        }
        break;
    }
    case kStringFormat:
        obj.kind = PlusObject::Kind::StringFormat;
        obj.format.flags = data.u32(4);
        obj.format.alignment = data.u32(12);
        obj.format.lineAlignment = data.u32(16);
        break;
    default:
        obj.kind = PlusObject::Kind::Other; // image attributes, custom line caps: nothing to draw
        break;
    }
    return problem;
}

} // namespace qx::emf
