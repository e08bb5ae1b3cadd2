#include "render/recording_device.h"

#include <cmath>
#include <cstdio>

namespace qx {
namespace {

std::string num(double v) {
    char buf[64];
    double r = std::round(v * 100.0) / 100.0;
    if (r == 0)
        r = 0; // no "-0"
    std::snprintf(buf, sizeof buf, "%g", r);
    return buf;
}

std::string pt(Point p) { return num(p.x) + "," + num(p.y); }

std::string rgb(Rgb c) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "#%02x%02x%02x", c.r, c.g, c.b);
    return buf;
}

} // namespace

std::string RecordingDevice::describe(const Path& path) {
    std::string out;
    size_t pi = 0;
    for (Path::Op op : path.ops()) {
        if (!out.empty())
            out += ' ';
        switch (op) {
        case Path::Op::Move: out += "M" + pt(path.points()[pi++]); break;
        case Path::Op::Line: out += "L" + pt(path.points()[pi++]); break;
        case Path::Op::Curve:
            out += "C" + pt(path.points()[pi]) + " " + pt(path.points()[pi + 1]) + " " +
                   pt(path.points()[pi + 2]);
            pi += 3;
            break;
        case Path::Op::Close: out += "Z"; break;
        }
    }
    return out;
}

std::string RecordingDevice::describe(const Paint& paint) {
    switch (paint.kind) {
    case Paint::Kind::None: return "none";
    case Paint::Kind::Solid: return rgb(paint.color);
    case Paint::Kind::Pattern:
        if (!paint.pattern)
            return "pattern(null)";
        return "pattern(" + std::to_string(paint.pattern->width) + "x" +
               std::to_string(paint.pattern->height) + ")";
    }
    return "?";
}

std::string RecordingDevice::describe(const RenderState& rs) {
    std::string out = "rop=" + std::to_string(rs.rop3);
    out += rs.sourceTransparent ? " srcT" : " srcO";
    out += rs.patternTransparent ? " patT" : " patO";
    if (rs.clip)
        out += " clip=" + std::to_string(rs.clip->entries.size());
    return out;
}

std::string RecordingDevice::describe(const Matrix& m) {
    return "[" + num(m.a) + " " + num(m.b) + " " + num(m.c) + " " + num(m.d) + " " + num(m.e) +
           " " + num(m.f) + "]";
}

void RecordingDevice::beginPage(const PageSpec& page) {
    m_inPage = true;
    std::string line = "beginPage " + num(page.widthPt) + "x" + num(page.heightPt);
    if (page.declaredDpiX > 0 || page.declaredDpiY > 0)
        line += " dpi=" + num(page.declaredDpiX) + "x" + num(page.declaredDpiY);
    m_calls.push_back(line);
}

void RecordingDevice::endPage() {
    m_inPage = false;
    ++m_pages;
    m_calls.push_back("endPage");
}

void RecordingDevice::discardPage() {
    m_inPage = false;
    m_calls.push_back("discardPage");
}

Matrix RecordingDevice::pageToDevice() const { return Matrix::scale(dpi / 72.0, dpi / 72.0); }

void RecordingDevice::fillPath(const Path& path, FillRule rule, const Paint& paint,
                               const RenderState& rs) {
    m_calls.push_back("fill " + std::string(rule == FillRule::EvenOdd ? "eo " : "nz ") +
                      describe(paint) + " " + describe(rs) + " " + describe(path));
}

void RecordingDevice::strokePath(const Path& path, const StrokeStyle& style, const Paint& paint,
                                 const RenderState& rs) {
    m_calls.push_back("stroke w=" + num(style.width) + " " + describe(paint) + " " + describe(rs) +
                      " " + describe(path));
}

void RecordingDevice::drawImage(const Image& image, const Matrix& imageToPage, const Paint& texture,
                                const RenderState& rs) {
    m_calls.push_back("image " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                      (image.format == Image::Format::Gray8 ? " gray " : " rgb ") +
                      describe(imageToPage) + " " + describe(texture) + " " + describe(rs));
}

void RecordingDevice::fillMask(const Mask& mask, const Matrix& maskToPage, const Paint& paint,
                               const RenderState& rs) {
    size_t ink = 0;
    for (uint8_t byte : mask.bits)
        ink += static_cast<size_t>(__builtin_popcount(byte));
    m_calls.push_back("mask " + std::to_string(mask.width) + "x" + std::to_string(mask.height) +
                      " ink=" + std::to_string(ink) + " " + describe(maskToPage) + " " +
                      describe(paint) + " " + describe(rs));
}

std::string RecordingDevice::joined() const {
    std::string out;
    for (const std::string& c : m_calls)
        out += c + "\n";
    return out;
}

} // namespace qx
