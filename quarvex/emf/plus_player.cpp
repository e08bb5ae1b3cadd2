// EMF+ records: the walk through a comment's records, the coordinate spaces, the graphics
// state (transforms, saved states, containers, clipping) and the object table.

#include "emf/plus_player.h"

#include "emf/player_state.h"
#include "emf/plus_objects.h"
#include "emf/records.h"

#include <algorithm>
#include <cmath>

namespace qx::emf {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kPtPerMm = 72.0 / 25.4;

enum : uint16_t {
    Header = 0x4001, EndOfFile = 0x4002, Comment = 0x4003, GetDC = 0x4004, MultiFormatStart = 0x4005,
    MultiFormatSection = 0x4006, MultiFormatEnd = 0x4007, Object = 0x4008, SetRenderingOrigin = 0x401D,
    SetAntiAliasMode = 0x401E, SetTextRenderingHint = 0x401F, SetTextContrast = 0x4020,
    SetInterpolationMode = 0x4021, SetPixelOffsetMode = 0x4022, SetCompositingMode = 0x4023,
    SetCompositingQuality = 0x4024, Save = 0x4025, Restore = 0x4026, BeginContainer = 0x4027,
    BeginContainerNoParams = 0x4028, EndContainer = 0x4029, SetWorldTransform = 0x402A,
    ResetWorldTransform = 0x402B, MultiplyWorldTransform = 0x402C, TranslateWorldTransform = 0x402D,
    ScaleWorldTransform = 0x402E, RotateWorldTransform = 0x402F, SetPageTransform = 0x4030, ResetClip = 0x4031,
    SetClipRect = 0x4032, SetClipPath = 0x4033, SetClipRegion = 0x4034, OffsetClip = 0x4035,
    SerializableObject = 0x4038, SetTSGraphics = 0x4039, SetTSClip = 0x403A,
};

// EMF+ clip combination modes as GDI region modes.
uint32_t regionMode(uint32_t combine) {
    switch (combine) {
    case 0: return RGN_COPY;
    case 1: return RGN_AND;
    case 2: return RGN_OR;
    case 3: return RGN_XOR;
    case 4: return RGN_DIFF;
    default: return 0;
    }
}

} // namespace

PlusPlayer::PlusPlayer(Player::Impl& g) : gdi(g), objects(std::make_unique<PlusObjects>()) {}
PlusPlayer::~PlusPlayer() = default;

void PlusPlayer::warn(const std::string& message) { gdi.warnOnce("EMF+: " + message); }

double PlusPlayer::unitToPixelsX(int unit) const {
    switch (unit) {
    case 1: return videoReference ? 1 : dpiX / 100; // Display
    case 3: return dpiX / 72;                       // Point
    case 4: return dpiX;                            // Inch
    case 5: return dpiX / 300;                      // Document
    case 6: return dpiX / 25.4;                     // Millimeter
    default: return 1;                              // World, Pixel
    }
}

double PlusPlayer::unitToPixelsY(int unit) const {
    switch (unit) {
    case 1: return videoReference ? 1 : dpiY / 100;
    case 3: return dpiY / 72;
    case 4: return dpiY;
    case 5: return dpiY / 300;
    case 6: return dpiY / 25.4;
    default: return 1;
    }
}

Matrix PlusPlayer::worldToDevice() const {
    const Matrix page = Matrix::scale(unitToPixelsX(state.pageUnit) * state.pageScale,
                                      unitToPixelsY(state.pageUnit) * state.pageScale);
    return page * state.world;
}

Matrix PlusPlayer::worldToPage() const {
    const Matrix deviceToPage{gdi.devPxToPtX, 0, 0, gdi.devPxToPtY, -gdi.placement.originXMm * kPtPerMm,
                              -gdi.placement.originYMm * kPtPerMm};
    return deviceToPage * worldToDevice();
}

void PlusPlayer::playComment(Bytes rec) {
    // Type, size, data size, then the "EMF+" identifier and the records.
    const uint32_t dataSize = rec.u32(8);
    if (dataSize < 4 || !rec.has(12, dataSize)) {
        warn("a comment whose data runs past its record");
        return;
    }
    const Bytes body = rec.sub(16, dataSize - 4);
    size_t pos = 0;
    while (!ended && body.size - pos >= 12) {
        const uint16_t type = body.u16(pos), flags = body.u16(pos + 2);
        const uint32_t size = body.u32(pos + 4), recordData = body.u32(pos + 8);
        if (size < 12 || size > body.size - pos || recordData > size - 12) {
            warn("a record of type " + std::to_string(type) + " with a bad size; the rest of its comment is left out");
            return;
        }
        const Bytes data = body.sub(pos + 12, recordData);
        if (type == Header) {
            // Version, EMF+ flags, then the reference device's resolution.
            m_plusOnly = !(flags & 1);
            videoReference = data.u32(4) & 1;
            const uint32_t dx = data.u32(8), dy = data.u32(12);
            if (dx > 0 && dx < 100000 && dy > 0 && dy < 100000)
                dpiX = dx, dpiY = dy;
        } else if (m_plusOnly) {
            playRecord(type, flags, data);
        }
        pos += size;
    }
}

void PlusPlayer::playRecord(uint16_t type, uint16_t flags, Bytes data) {
    if (playStateRecord(type, flags, data) || playDrawRecord(type, flags, data))
        return;
    switch (type) {
    case EndOfFile: ended = true; return;
    case Comment:
    case GetDC:
    case MultiFormatStart:
    case MultiFormatSection:
    case MultiFormatEnd:
    case SetRenderingOrigin:
    case SetAntiAliasMode:
    case SetTextRenderingHint:
    case SetTextContrast:
    case SetInterpolationMode:
    case SetPixelOffsetMode:
    case SetCompositingMode:
    case SetCompositingQuality:
    case SerializableObject:
    case SetTSGraphics:
    case SetTSClip:
        return; // nothing on paper
    default:
        warn("records of type " + std::to_string(type) + " are not drawn");
        return;
    }
}

bool PlusPlayer::playStateRecord(uint16_t type, uint16_t flags, Bytes data) {
    // Post-multiplied (the A flag): the new transform applies after the world transform.
    const bool append = flags & 0x2000;
    auto compose = [&](const std::optional<Matrix>& m) {
        if (!m || !finiteMatrix(*m)) {
            warn("a world transform that is not finite is ignored");
            return;
        }
        state.world = append ? *m * state.world : state.world * *m;
    };
    auto push = [&](uint32_t index) {
        if (saved.size() >= kMaxPlusSaves) {
            warn("graphics states saved more than " + std::to_string(kMaxPlusSaves) + " deep; the rest are not kept");
            return false;
        }
        State s = state;
        s.clip = gdi.dc.clip;
        s.stackIndex = index;
        saved.push_back(std::move(s));
        return true;
    };
    switch (type) {
    case Object: {
        const int id = flags & 0xff;
        const uint32_t kind = (flags >> 8) & 0x7f;
        if (id >= int(kPlusObjectSlots)) {
            warn("an object number out of range is ignored");
            return true;
        }
        PlusObjects& t = *objects;
        Bytes body = data;
        if (flags & 0x8000) {
            // Continued: the total size first, then this record's part of the data.
            const uint32_t total = data.u32(0);
            if (t.pendingId != id || t.pendingKind != kind) {
                t.pending.clear();
                t.pendingId = id;
                t.pendingKind = kind;
                t.pendingTotal = total;
            }
            if (data.size < 4 || t.pendingTotal > kMaxPlusObjectBytes) {
                warn("an object spread over records too large to gather is left out");
                t.pending.clear();
                t.pendingId = -1;
                return true;
            }
            t.pending.insert(t.pending.end(), data.data + 4, data.data + data.size);
            if (t.pending.size() < t.pendingTotal)
                return true;
            body = Bytes{t.pending.data(), t.pending.size()};
        } else if (t.pendingId == id && t.pendingKind == kind && !t.pending.empty()) {
            // The last part of a continued object comes without the flag.
            t.pending.insert(t.pending.end(), data.data, data.data + data.size);
            body = Bytes{t.pending.data(), t.pending.size()};
        }
        const std::string problem = readPlusObject(kind, body, t.slots[size_t(id)], t.imageBytes);
        if (!problem.empty())
            warn(problem);
        if (body.data == t.pending.data()) {
            t.pending.clear();
            t.pending.shrink_to_fit();
            t.pendingId = -1;
        }
        return true;
    }
    case SetWorldTransform: {
        if (const auto m = readPlusMatrix(data, 0))
            state.world = *m;
        return true;
    }
    case ResetWorldTransform: state.world = Matrix{}; return true;
    case MultiplyWorldTransform:
        if (data.size >= 24)
            compose(readPlusMatrix(data, 0));
        return true;
    case TranslateWorldTransform: compose(Matrix::translate(data.f32(0), data.f32(4))); return true;
    case ScaleWorldTransform: compose(Matrix::scale(data.f32(0), data.f32(4))); return true;
    case RotateWorldTransform: compose(Matrix::rotate(data.f32(0) * kPi / 180)); return true;
    case SetPageTransform: {
        const double scale = data.f32(0);
        state.pageUnit = flags & 0xff;
        state.pageScale = std::isfinite(scale) && scale > 0 ? scale : 1;
        return true;
    }
    case Save:
    case BeginContainerNoParams:
        push(data.u32(0));
        return true;
    case BeginContainer: {
        // Flags: the unit of the rectangles; the source rectangle maps onto the destination.
        const PlusRect dst = readPlusRect(data, 0, false), src = readPlusRect(data, 16, false);
        if (!push(data.u32(32)))
            return true;
        state.pageScale = 1;
        if (src.w != 0 && src.h != 0) {
            const double u = unitToPixelsX(flags & 0xff) / unitToPixelsX(saved.back().pageUnit);
            const double v = unitToPixelsY(flags & 0xff) / unitToPixelsY(saved.back().pageUnit);
            state.world = state.world * Matrix::translate(dst.x * u, dst.y * v) *
                          Matrix::scale(dst.w * u / src.w, dst.h * v / src.h) * Matrix::translate(-src.x, -src.y);
        }
        return true;
    }
    case Restore:
    case EndContainer: {
        const uint32_t index = data.u32(0);
        for (size_t i = saved.size(); i-- > 0;) {
            if (saved[i].stackIndex != index)
                continue;
            state = saved[i];
            gdi.dc.clip = state.clip;
            saved.resize(i);
            return true;
        }
        return true; // a state never saved: nothing to go back to
    }
    case ResetClip: gdi.dc.clip.reset(); return true;
    case SetClipRect:
    case SetClipPath:
    case SetClipRegion: {
        const uint32_t mode = regionMode((flags >> 8) & 0x0f);
        if (mode == 0) {
            warn("clipping to the complement of a region is left out");
            return true;
        }
        const Matrix m = worldToPage();
        std::vector<Path> paths;
        if (type == SetClipRect) {
            const PlusRect r = readPlusRect(data, 0, false);
            paths.push_back(rectPath(m, r.x, r.y, r.x + r.w, r.y + r.h));
        } else {
            const PlusObject& o = objects->slots[flags & 0x3f];
            if ((flags & 0xff) >= kPlusObjectSlots ||
                o.kind != (type == SetClipPath ? PlusObject::Kind::Path : PlusObject::Kind::Region)) {
                warn("clipping to an object that was never made is ignored");
                return true;
            }
            if (type == SetClipPath) {
                paths.push_back(o.path.path.transformed(m));
            } else {
                if (o.regionInfinite && (mode == RGN_COPY || mode == RGN_OR)) {
                    gdi.dc.clip.reset();
                    return true;
                }
                for (const Path& p : o.region)
                    paths.push_back(p.transformed(m));
            }
        }
        for (size_t i = 0; i < paths.size(); ++i)
            gdi.combineClip(std::move(paths[i]), FillRule::NonZero, i == 0 ? mode : RGN_AND);
        return true;
    }
    case OffsetClip:
        if (gdi.dc.clip) {
            const Point o = worldToPage().applyVector({data.f32(0), data.f32(4)});
            if (std::isfinite(o.x) && std::isfinite(o.y)) {
                std::vector<ClipRegion::Entry> entries = gdi.dc.clip->entries;
                for (auto& e : entries)
                    e.path = e.path.transformed(Matrix::translate(o.x, o.y));
                gdi.setClipEntries(std::move(entries));
            }
        }
        return true;
    default:
        return false;
    }
}

} // namespace qx::emf
