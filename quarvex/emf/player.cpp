#include "emf/player_state.h"

#include "common/diagnostics.h"
#include "emf/dib.h"
#include "emf/plus_player.h"
#include "emf/records.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPtPerMm = 72.0 / 25.4;

} // namespace

uint8_t rop3FromRop2(int rop2) {
    if (rop2 < 1 || rop2 > 16 || rop2 == 13)
        return 252; // R2_COPYPEN: the paint (and black ink, which adds nothing)
    // The R2 code less one is a truth table over (pen, destination); the pen is the texture.
    const int table = rop2 - 1;
    uint8_t rop3 = 0;
    for (int t = 0; t < 2; ++t)
        for (int s = 0; s < 2; ++s)
            for (int dd = 0; dd < 2; ++dd)
                if ((table >> (t * 2 + dd)) & 1)
                    rop3 |= uint8_t(1u << (t * 4 + s * 2 + dd));
    return rop3;
}

bool isEmf(const uint8_t* data, size_t size) {
    const Bytes b{data, size};
    return size >= 88 && b.u32(0) == EMR_HEADER && b.u32(40) == 0x464D4520;
}

bool readHeader(Bytes data, EmfHeader& h) {
    if (!isEmf(data.data, data.size))
        return false;
    const uint32_t size = data.u32(4);
    if (size < 88 || size > data.size)
        return false;
    h.boundsLeft = data.i32(8), h.boundsTop = data.i32(12), h.boundsRight = data.i32(16), h.boundsBottom = data.i32(20);
    h.frameLeft = data.i32(24), h.frameTop = data.i32(28), h.frameRight = data.i32(32), h.frameBottom = data.i32(36);
    h.bytes = data.u32(48);
    h.records = data.u32(52);
    h.handles = data.u16(56);
    h.devicePxX = data.i32(72), h.devicePxY = data.i32(76);
    h.deviceMmX = data.i32(80), h.deviceMmY = data.i32(84);
    if (size >= 108) {
        h.deviceUmX = data.u32(100);
        h.deviceUmY = data.u32(104);
    }
    return true;
}

MetafileWalk walkRecords(Bytes mf) {
    MetafileWalk w;
    size_t pos = 0;
    while (mf.size - pos >= 8) {
        const uint32_t size = mf.u32(pos + 4);
        if (size < 8 || size % 4 != 0 || size > mf.size - pos)
            return w;
        ++w.records;
        if (mf.u32(pos) == EMR_EOF) {
            w.intact = true;
            return w;
        }
        pos += size;
    }
    return w;
}

Player::Player(Device& device, Diagnostics& diag, const FontLibrary* fonts)
    : d(std::make_unique<Impl>(device, diag, fonts)) {}
Player::~Player() = default;

size_t Player::recordsPlayed() const { return d->records; }

void Player::addFont(uint32_t type, Bytes body) { d->addFonts({d->embedded.add(type, body)}); }

void Player::Impl::addFonts(const std::vector<std::string>& problems) {
    for (const std::string& p : problems)
        if (!p.empty())
            warnOnce(p);
}

void Player::Impl::warnOnce(const std::string& message) {
    if (warned.size() < 64 && warned.insert(message).second)
        diag.warning("EMF: " + message);
}

Matrix Player::Impl::pageToDeviceUnits() const {
    double sx = 1, sy = 1;
    // Reference device pixels per millimetre.
    const double pxPerMmX = 1.0 / (devPxToPtX / kPtPerMm), pxPerMmY = 1.0 / (devPxToPtY / kPtPerMm);
    switch (dc.mapMode) {
    case 2: sx = 0.1 * pxPerMmX, sy = -0.1 * pxPerMmY; break;                   // MM_LOMETRIC
    case 3: sx = 0.01 * pxPerMmX, sy = -0.01 * pxPerMmY; break;                 // MM_HIMETRIC
    case 4: sx = 0.254 * pxPerMmX, sy = -0.254 * pxPerMmY; break;               // MM_LOENGLISH
    case 5: sx = 0.0254 * pxPerMmX, sy = -0.0254 * pxPerMmY; break;             // MM_HIENGLISH
    case 6: sx = 25.4 / 1440 * pxPerMmX, sy = -25.4 / 1440 * pxPerMmY; break;   // MM_TWIPS
    case 7:                                                                     // MM_ISOTROPIC
    case 8: {                                                                   // MM_ANISOTROPIC
        sx = dc.windowExtX != 0 ? dc.viewportExtX / dc.windowExtX : 1;
        sy = dc.windowExtY != 0 ? dc.viewportExtY / dc.windowExtY : 1;
        if (dc.mapMode == 7) {
            const double m = std::min(std::fabs(sx), std::fabs(sy));
            sx = std::copysign(m, sx);
            sy = std::copysign(m, sy);
        }
        break;
    }
    default: break;                                                             // MM_TEXT
    }
    return {sx, 0, 0, sy, dc.viewportOrgX - dc.windowOrgX * sx, dc.viewportOrgY - dc.windowOrgY * sy};
}

Matrix Player::Impl::logicalToPage() const {
    const Matrix deviceToPage{devPxToPtX, 0, 0, devPxToPtY, -placement.originXMm * kPtPerMm,
                              -placement.originYMm * kPtPerMm};
    return deviceToPage * pageToDeviceUnits() * dc.world;
}

double Player::Impl::lengthScale() const {
    const Matrix m = logicalToPage();
    return std::sqrt(std::fabs(m.a * m.d - m.b * m.c));
}

RenderState Player::Impl::renderState() const {
    RenderState rs;
    rs.rop3 = rop3FromRop2(dc.rop2);
    rs.sourceTransparent = false;
    rs.patternTransparent = false;
    rs.clip = dc.clip;
    return rs;
}

Paint Player::Impl::brushPaint(const BrushObject& brush) const {
    switch (brush.style) {
    case 0: return Paint::solid(brush.color); // BS_SOLID
    case 1: return Paint::none();             // BS_NULL
    case 2: {                                 // BS_HATCHED: an 8x8 tile of reference pixels
        auto tile = std::make_shared<PatternTile>();
        tile->width = tile->height = 8;
        const Rgb back = dc.bkOpaque ? dc.bkColor : Rgb::white();
        tile->pixels.assign(64, back);
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) {
                bool ink = false;
                switch (brush.hatch) {
                case 0: ink = y == 4; break;                  // HS_HORIZONTAL
                case 1: ink = x == 4; break;                  // HS_VERTICAL
                case 2: ink = x == y; break;                  // HS_FDIAGONAL
                case 3: ink = x == 7 - y; break;              // HS_BDIAGONAL
                case 4: ink = x == 4 || y == 4; break;        // HS_CROSS
                default: ink = x == y || x == 7 - y; break;   // HS_DIAGCROSS
                }
                if (ink)
                    tile->pixels[size_t(y) * 8 + size_t(x)] = brush.color;
            }
        tile->tileToPage = Matrix::scale(devPxToPtX, devPxToPtY);
        return Paint::tiled(std::move(tile));
    }
    default: {
        if (!brush.pattern)
            return Paint::solid(brush.color);
        auto tile = std::make_shared<PatternTile>(imageTile(*brush.pattern));
        // A one-bit pattern paints its 0 bits in the text colour, 1 bits in the background.
        if (brush.monoPattern)
            for (Rgb& c : tile->pixels)
                c = (c == Rgb::black()) ? dc.textColor : dc.bkColor;
        tile->tileToPage = Matrix::scale(devPxToPtX, devPxToPtY);
        return Paint::tiled(std::move(tile));
    }
    }
}

StrokeStyle Player::Impl::strokeStyle() const {
    StrokeStyle s;
    const PenObject& pen = dc.pen;
    const bool geometric = (pen.style & 0x000F0000) == 0x00010000;
    const double scale = lengthScale();
    s.width = (pen.width <= 1 && !geometric) ? 0 : pen.width * scale;
    switch (pen.style & 0x0F00) {
    case 0x0100: s.cap = StrokeStyle::Cap::Square; break;
    case 0x0200: s.cap = StrokeStyle::Cap::Butt; break;
    default: s.cap = StrokeStyle::Cap::Round; break;
    }
    switch (pen.style & 0xF000) {
    case 0x1000: s.join = StrokeStyle::Join::Bevel; break;
    case 0x2000: s.join = StrokeStyle::Join::Miter; break;
    default: s.join = StrokeStyle::Join::Round; break;
    }
    s.miterLimit = dc.miterLimit;
    // Dashes: cosmetic pens count reference pixels, geometric ones the pen's width.
    const double unit = s.width > 0 ? s.width : std::max(devPxToPtX, 0.24);
    const double dash = s.width > 0 ? 3 * unit : 18 * unit;
    const double gap = s.width > 0 ? unit : 6 * unit;
    const double dot = s.width > 0 ? unit : 3 * unit;
    switch (pen.style & 0x0F) {
    case 1: s.dashes = {dash, gap}; break;                          // PS_DASH
    case 2: s.dashes = {dot, gap}; break;                           // PS_DOT
    case 3: s.dashes = {dash, gap, dot, gap}; break;                // PS_DASHDOT
    case 4: s.dashes = {dash, gap, dot, gap, dot, gap}; break;      // PS_DASHDOTDOT
    case 7:                                                         // PS_USERSTYLE
        for (double v : pen.userDashes)
            s.dashes.push_back(std::max(v * (s.width > 0 ? scale : devPxToPtX), 0.01));
        if (s.dashes.size() % 2)
            s.dashes.push_back(s.dashes.back());
        break;
    default: break;
    }
    return s;
}

void Player::Impl::drawShape(const Path& p, bool fill, bool stroke) {
    if (p.empty())
        return;
    if (inPath) {
        if (path.points().size() + p.points().size() > kMaxPathPoints) {
            warnOnce("a path too long to keep; the rest of it is left out");
            return;
        }
        path.append(p);
        pathHasOpenFigure = false;
        return;
    }
    const RenderState rs = renderState();
    if (fill) {
        const Paint paint = brushPaint(dc.brush);
        if (paint.kind != Paint::Kind::None) {
            RenderState frs = rs;
            frs.patternTransparent = dc.brush.style == 2 && !dc.bkOpaque;
            device.fillPath(p, dc.polyFill, paint, frs);
        }
    }
    if (stroke && penDraws())
        device.strokePath(p, strokeStyle(), Paint::solid(dc.pen.color), rs);
}

bool Player::Impl::setClipEntries(std::vector<ClipRegion::Entry> entries) {
    size_t points = 0;
    for (const ClipRegion::Entry& e : entries)
        points += e.path.points().size();
    if (points > kMaxClipPoints - clipPointsUsed) {
        warnOnce("clipping paths too large in all; later clipping is left out");
        return false;
    }
    clipPointsUsed += points;
    auto clip = std::make_shared<ClipRegion>();
    clip->entries = std::move(entries);
    dc.clip = std::move(clip);
    return true;
}

void Player::Impl::intersectClip(const Path& p, FillRule rule) {
    std::vector<ClipRegion::Entry> entries;
    if (dc.clip)
        entries = dc.clip->entries;
    if (entries.size() >= kMaxClipEntries) {
        warnOnce("too many clipping paths on top of each other; the innermost ones are left out");
        return;
    }
    entries.push_back({p, rule});
    setClipEntries(std::move(entries));
}

void Player::Impl::combineClip(Path p, FillRule rule, uint32_t mode) {
    if (mode == RGN_AND) {
        intersectClip(p, rule);
    } else if (mode == RGN_DIFF) {
        // Inside a rectangle far larger than any page, but not inside the path.
        Path outside;
        outside.addRect(-1e5, -1e5, 2e5, 2e5);
        outside.append(p);
        intersectClip(outside, FillRule::EvenOdd);
    } else if (mode == RGN_OR && !dc.clip) {
        // Everything or'ed with anything is still everything.
    } else {
        if (mode != RGN_COPY)
            warnOnce("clipping by a union or exclusive-or is taken as the new region alone");
        setClipEntries({{std::move(p), rule}});
    }
}

bool Player::play(Bytes mf, const EmfHeader& header, const PagePlacement& placement) {
    Impl& s = *d;
    s.header = header;
    s.placement = placement;
    // Reference device pixels in millimetres: micrometres when given, else the millimetre
    // size; a header without either is taken as 96 pixels an inch.
    double mmX = header.deviceUmX > 0 ? header.deviceUmX / 1000.0 : header.deviceMmX;
    double mmY = header.deviceUmY > 0 ? header.deviceUmY / 1000.0 : header.deviceMmY;
    double pxX = header.devicePxX, pxY = header.devicePxY;
    if (!(mmX > 0 && pxX > 0 && mmY > 0 && pxY > 0))
        mmX = mmY = 25.4, pxX = pxY = 96;
    s.devPxToPtX = mmX / pxX * kPtPerMm;
    s.devPxToPtY = mmY / pxY * kPtPerMm;
    s.dc = DcState{};
    s.saved.clear();
    s.objects.clear();
    s.inPath = false;
    s.path.clear();
    s.clipPointsUsed = 0;
    s.patternBytesUsed = 0;
    s.plus.reset();

    size_t pos = 0;
    bool ended = false;
    while (pos < mf.size) {
        if (mf.size - pos < 8) {
            s.warnOnce("the metafile ends inside a record");
            s.damaged = true;
            break;
        }
        const uint32_t type = mf.u32(pos);
        const uint32_t size = mf.u32(pos + 4);
        if (size < 8 || size % 4 != 0 || size > mf.size - pos) {
            s.warnOnce("record " + std::to_string(type) + " at byte " + std::to_string(pos) + " has a bad size " +
                       std::to_string(size) + "; the rest of the page is left out");
            s.damaged = true;
            break;
        }
        const Bytes rec = mf.sub(pos, size);
        ++s.records;
        if (type == EMR_EOF) {
            ended = true;
            break;
        }
        if (type != EMR_HEADER || pos != 0)
            s.playRecord(type, rec);
        pos += size;
    }
    if (!ended && !s.damaged) {
        s.warnOnce("the metafile ends without its end-of-file record");
        s.damaged = true;
    }
    return !s.damaged;
}

void Player::Impl::playRecord(uint32_t type, Bytes rec) {
    if (playStateRecord(type, rec) || playObjectRecord(type, rec) || playPathRecord(type, rec) ||
        playShapeRecord(type, rec) || playTextRecord(type, rec) || playBitmapRecord(type, rec) ||
        playRegionRecord(type, rec))
        return;
    switch (type) {
    case EMR_COMMENT:
        // Fonts that a spool file embeds in the page (an EMFSPOOL comment of font definitions).
        if (rec.u32(12) == 0 && rec.u32(16) == 0x544F4E46) {
            const uint32_t dataSize = rec.u32(8);
            if (dataSize < 8 || dataSize > rec.size - 12)
                warnOnce("an embedded font comment whose size does not fit it is left out");
            else
                addFonts(embedded.addRecords(rec.sub(20, dataSize - 8)));
            return;
        }
        // GDI+ writes its own records into comments. A page drawn in EMF+ only (the EMF+
        // header's dual flag clear) is drawn from them; a dual one from its GDI records.
        if (rec.u32(12) == 0x2B464D45) {
            if (!plus)
                plus = std::make_unique<PlusPlayer>(*this);
            plus->playComment(rec);
        }
        return;
    // Records that change nothing on paper.
    case EMR_HEADER:
    case EMR_SETBRUSHORGEX:
    case EMR_SETMAPPERFLAGS:
    case EMR_SETSTRETCHBLTMODE:
    case EMR_SETCOLORADJUSTMENT:
    case EMR_SETMETARGN:
    case EMR_SELECTPALETTE:
    case EMR_CREATEPALETTE:
    case EMR_SETPALETTEENTRIES:
    case EMR_RESIZEPALETTE:
    case EMR_REALIZEPALETTE:
    case EMR_SETICMMODE:
    case EMR_CREATECOLORSPACE:
    case EMR_SETCOLORSPACE:
    case EMR_DELETECOLORSPACE:
    case EMR_CREATECOLORSPACEW:
    case EMR_COLORCORRECTPALETTE:
    case EMR_SETICMPROFILEA:
    case EMR_SETICMPROFILEW:
    case EMR_COLORMATCHTOTARGETW:
    case EMR_SETLAYOUT:
    case EMR_PIXELFORMAT:
    case EMR_FORCEUFIMAPPING:
    case EMR_SETLINKEDUFIS:
    case EMR_SETTEXTJUSTIFICATION:
        return;
    default:
        warnOnce("records of type " + std::to_string(type) + " are not drawn");
        return;
    }
}

bool Player::Impl::playStateRecord(uint32_t type, Bytes rec) {
    switch (type) {
    case EMR_SETWINDOWEXTEX:
        if (rec.i32(8) != 0 && rec.i32(12) != 0)
            dc.windowExtX = rec.i32(8), dc.windowExtY = rec.i32(12);
        return true;
    case EMR_SETWINDOWORGEX: dc.windowOrgX = rec.i32(8), dc.windowOrgY = rec.i32(12); return true;
    case EMR_SETVIEWPORTEXTEX:
        if (rec.i32(8) != 0 && rec.i32(12) != 0)
            dc.viewportExtX = rec.i32(8), dc.viewportExtY = rec.i32(12);
        return true;
    case EMR_SETVIEWPORTORGEX: dc.viewportOrgX = rec.i32(8), dc.viewportOrgY = rec.i32(12); return true;
    case EMR_SCALEVIEWPORTEXTEX:
    case EMR_SCALEWINDOWEXTEX: {
        const int32_t xn = rec.i32(8), xd = rec.i32(12), yn = rec.i32(16), yd = rec.i32(20);
        if (xn == 0 || xd == 0 || yn == 0 || yd == 0)
            return true;
        double& ex = type == EMR_SCALEVIEWPORTEXTEX ? dc.viewportExtX : dc.windowExtX;
        double& ey = type == EMR_SCALEVIEWPORTEXTEX ? dc.viewportExtY : dc.windowExtY;
        ex = ex * xn / xd;
        ey = ey * yn / yd;
        return true;
    }
    case EMR_SETMAPMODE: {
        const uint32_t m = rec.u32(8);
        if (m >= 1 && m <= 8)
            dc.mapMode = int(m);
        return true;
    }
    case EMR_SETBKMODE: dc.bkOpaque = rec.u32(8) == 2; return true;
    case EMR_SETPOLYFILLMODE: dc.polyFill = rec.u32(8) == 2 ? FillRule::NonZero : FillRule::EvenOdd; return true;
    case EMR_SETROP2: dc.rop2 = int(rec.u32(8)); return true;
    case EMR_SETTEXTALIGN: dc.textAlign = rec.u32(8); return true;
    case EMR_SETTEXTCOLOR: dc.textColor = colorRef(rec.u32(8)); return true;
    case EMR_SETBKCOLOR: dc.bkColor = colorRef(rec.u32(8)); return true;
    case EMR_SETARCDIRECTION: dc.arcClockwise = rec.u32(8) == 2; return true;
    case EMR_SETMITERLIMIT: {
        const float v = rec.f32(8);
        dc.miterLimit = (std::isfinite(v) && v >= 1) ? std::min<double>(v, 100) : 10;
        return true;
    }
    case EMR_MOVETOEX:
        dc.current = {double(rec.i32(8)), double(rec.i32(12))};
        if (inPath)
            pathHasOpenFigure = false;
        return true;
    case EMR_SAVEDC:
        if (saved.size() >= kMaxSaveDepth) {
            warnOnce("graphics states saved more than " + std::to_string(kMaxSaveDepth) + " deep; the rest are not kept");
            return true;
        }
        saved.push_back(dc);
        return true;
    case EMR_RESTOREDC: {
        const int32_t n = rec.i32(8);
        // Negative: that many levels back; positive: that saved level counted from the first.
        size_t keep;
        if (n < 0 && size_t(-int64_t(n)) <= saved.size())
            keep = saved.size() - size_t(-int64_t(n));
        else if (n > 0 && size_t(n) <= saved.size())
            keep = size_t(n) - 1;
        else
            return true;
        dc = saved[keep];
        saved.resize(keep);
        return true;
    }
    case EMR_SETWORLDTRANSFORM:
    case EMR_MODIFYWORLDTRANSFORM: {
        const Matrix x{rec.f32(8), rec.f32(12), rec.f32(16), rec.f32(20), rec.f32(24), rec.f32(28)};
        const bool finite = std::isfinite(x.a) && std::isfinite(x.b) && std::isfinite(x.c) && std::isfinite(x.d) &&
                            std::isfinite(x.e) && std::isfinite(x.f);
        const uint32_t mode = type == EMR_SETWORLDTRANSFORM ? 4 : rec.u32(32);
        if (mode == 1) {
            dc.world = Matrix{};
        } else if (!finite) {
            warnOnce("a world transform that is not finite is ignored");
        } else if (mode == 2) {
            dc.world = dc.world * x; // the new transform applies first
        } else if (mode == 3) {
            dc.world = x * dc.world;
        } else if (mode == 4) {
            dc.world = x;
        }
        dc.advancedGraphics = dc.advancedGraphics || !(dc.world.b == 0 && dc.world.c == 0);
        return true;
    }
    default:
        return false;
    }
}

bool Player::Impl::playObjectRecord(uint32_t type, Bytes rec) {
    // A fresh object of that kind in the handle table; null for a handle out of range.
    auto fresh = [&](uint32_t index, GdiObject::Kind kind) -> GdiObject* {
        if (index == 0 || index >= 0x10000)
            return nullptr;
        if (index >= objects.size())
            objects.resize(size_t(index) + 1);
        objects[index] = GdiObject{};
        objects[index].kind = kind;
        return &objects[index];
    };
    switch (type) {
    case EMR_CREATEPEN: {
        GdiObject* o = fresh(rec.u32(8), GdiObject::Kind::Pen);
        if (!o)
            return true;
        o->pen.style = rec.u32(12);
        o->pen.width = std::fabs(double(rec.i32(16)));
        o->pen.color = colorRef(rec.u32(24));
        return true;
    }
    case EMR_EXTCREATEPEN: {
        GdiObject* o = fresh(rec.u32(8), GdiObject::Kind::Pen);
        if (!o)
            return true;
        o->pen.style = rec.u32(28);
        o->pen.width = double(rec.u32(32));
        o->pen.color = colorRef(rec.u32(40));
        if (rec.u32(36) == 1) // BS_NULL brush: no line
            o->pen.style = (o->pen.style & ~0x0fu) | 5u;
        const uint32_t n = rec.u32(48);
        for (uint32_t i = 0; i < n && i < 16 && rec.has(52 + size_t(i) * 4, 4); ++i)
            o->pen.userDashes.push_back(rec.u32(52 + size_t(i) * 4));
        return true;
    }
    case EMR_CREATEBRUSHINDIRECT: {
        GdiObject* o = fresh(rec.u32(8), GdiObject::Kind::Brush);
        if (!o)
            return true;
        o->brush.style = rec.u32(12);
        o->brush.color = colorRef(rec.u32(16));
        o->brush.hatch = rec.u32(20);
        if (o->brush.style > 2) // pattern styles need a bitmap, which this record has not
            o->brush.style = 0;
        return true;
    }
    case EMR_CREATEMONOBRUSH:
    case EMR_CREATEDIBPATTERNBRUSHPT: {
        GdiObject* o = fresh(rec.u32(8), GdiObject::Kind::Brush);
        if (!o)
            return true;
        o->brush.style = 5;
        o->brush.color = Rgb::black();
        o->brush.monoPattern = type == EMR_CREATEMONOBRUSH;
        const Bytes info = rec.sub(rec.u32(16), rec.u32(20));
        const Bytes bits = rec.sub(rec.u32(24), rec.u32(28));
        // A pattern tile larger than this is a hostile one, not a brush.
        const int64_t pixels = std::abs(int64_t(info.i32(4))) * std::abs(int64_t(info.i32(8)));
        if (info.u32(0) >= 12 && pixels <= (1 << 20) && size_t(pixels) * 3 <= kMaxPatternBytes - patternBytesUsed) {
            DibResult r = decodeDib(info, bits, rec.u32(12) == 1);
            if (r.image) {
                patternBytesUsed += r.image->data.size();
                o->brush.pattern = std::make_shared<const Image>(std::move(*r.image));
            }
        }
        if (!o->brush.pattern) {
            warnOnce("a pattern brush without a usable bitmap is drawn as solid grey");
            o->brush.style = 0;
            o->brush.color = {128, 128, 128};
        }
        return true;
    }
    case EMR_EXTCREATEFONTINDIRECTW: {
        GdiObject* o = fresh(rec.u32(8), GdiObject::Kind::Font);
        if (!o)
            return true;
        FontObject& f = o->font;
        f.height = rec.i32(12);
        f.width = rec.i32(16);
        f.escapement = rec.i32(20);
        f.weight = rec.i32(28);
        f.italic = rec.u8(32) != 0;
        f.underline = rec.u8(33) != 0;
        f.strikeOut = rec.u8(34) != 0;
        f.charSet = rec.u8(35);
        f.pitchAndFamily = rec.u8(39);
        for (size_t i = 0; i < 32; ++i) {
            const uint16_t c = rec.u16(40 + i * 2);
            if (c == 0)
                break;
            f.face.push_back(c >= 0x20 && c < 0x7f ? char(c) : '?');
        }
        return true;
    }
    case EMR_SELECTOBJECT: {
        const uint32_t index = rec.u32(8);
        if (index & 0x80000000u) {
            switch (index & 0x7fffffffu) {
            case 0: dc.brush = BrushObject::solid(Rgb::white()); break;
            case 1: dc.brush = BrushObject::solid({192, 192, 192}); break;
            case 2: dc.brush = BrushObject::solid({128, 128, 128}); break;
            case 3: dc.brush = BrushObject::solid({64, 64, 64}); break;
            case 4: dc.brush = BrushObject::solid(Rgb::black()); break;
            case 5: dc.brush = BrushObject::null(); break;
            case 6: dc.pen = PenObject::cosmetic(0, Rgb::white()); break;
            case 7: dc.pen = PenObject::cosmetic(0, Rgb::black()); break;
            case 8: dc.pen = PenObject::cosmetic(5, Rgb::black()); break;
            case 18: dc.brush = BrushObject::solid(Rgb::white()); break;
            case 19: dc.pen = PenObject::cosmetic(0, Rgb::black()); break;
            case 10: case 11: case 16: dc.font = FontObject{}; dc.font.face = "Courier New"; break;
            case 12: case 13: case 14: case 17: dc.font = FontObject{}; dc.font.face = "Arial"; break;
            default: break;
            }
            return true;
        }
        if (index == 0 || index >= objects.size()) {
            warnOnce("an object that was never made is selected");
            return true;
        }
        const GdiObject& o = objects[index];
        switch (o.kind) {
        case GdiObject::Kind::Pen: dc.pen = o.pen; break;
        case GdiObject::Kind::Brush: dc.brush = o.brush; break;
        case GdiObject::Kind::Font: dc.font = o.font; break;
        default: break;
        }
        return true;
    }
    case EMR_DELETEOBJECT: {
        const uint32_t index = rec.u32(8);
        if (index > 0 && index < objects.size())
            objects[index] = GdiObject{};
        return true;
    }
    default:
        return false;
    }
}

bool Player::Impl::playPathRecord(uint32_t type, Bytes rec) {
    switch (type) {
    case EMR_BEGINPATH:
        inPath = true;
        path.clear();
        pathHasOpenFigure = false;
        return true;
    case EMR_ENDPATH:
        inPath = false;
        return true;
    case EMR_ABORTPATH:
        inPath = false;
        path.clear();
        return true;
    case EMR_CLOSEFIGURE:
        if (inPath && !path.empty()) {
            path.close();
            pathHasOpenFigure = false;
        }
        return true;
    case EMR_FLATTENPATH:
    case EMR_WIDENPATH:
        // Curves stay curves (the device flattens them); widening is left to the stroke.
        return true;
    case EMR_FILLPATH:
    case EMR_STROKEPATH:
    case EMR_STROKEANDFILLPATH: {
        inPath = false;
        Path p = std::move(path);
        path.clear();
        drawShape(p, type != EMR_STROKEPATH, type != EMR_FILLPATH);
        return true;
    }
    case EMR_SELECTCLIPPATH: {
        inPath = false;
        Path p = std::move(path);
        path.clear();
        combineClip(std::move(p), dc.polyFill, rec.u32(8));
        return true;
    }
    default:
        return false;
    }
}

} // namespace qx::emf
