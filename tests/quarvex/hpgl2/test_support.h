#pragma once
// A drawing device that records calls as text (RecordingDevice) and also keeps the paths and
// stroke styles, and a PCL stand-in that begins the page when HP-GL/2 first draws.

#include "common/diagnostics.h"
#include "hpgl2/hpgl2.h"
#include "render/recording_device.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace qx::hpgl2::test {

// The width a pen of widthPt points is drawn at on a device of dpi: a whole number of dots, and
// 0 (the device's thinnest line) for one dot.
inline double printedWidth(double widthPt, double dpi = 300) {
    const double dots = std::round(widthPt * dpi / 72);
    return dots <= 1 ? 0 : dots * 72 / dpi;
}

class CaptureDevice : public RecordingDevice {
public:
    struct Stroke {
        Path path;
        StrokeStyle style;
        Paint paint;
    };
    struct Fill {
        Path path;
        FillRule rule;
        Paint paint;
        RenderState rs;
    };
    std::vector<Stroke> strokes;
    std::vector<Fill> fills;
    int masks = 0;

    void strokePath(const Path& path, const StrokeStyle& style, const Paint& paint, const RenderState& rs) override {
        strokes.push_back({path, style, paint});
        RecordingDevice::strokePath(path, style, paint, rs);
    }
    void fillPath(const Path& path, FillRule rule, const Paint& paint, const RenderState& rs) override {
        fills.push_back({path, rule, paint, rs});
        RecordingDevice::fillPath(path, rule, paint, rs);
    }
    void fillMask(const Mask& mask, const Matrix& m, const Paint& paint, const RenderState& rs) override {
        ++masks;
        RecordingDevice::fillMask(mask, m, paint, rs);
    }
};

class PageHost : public Host {
public:
    explicit PageHost(Device& d) : m_dev(d) {}
    void ensurePage() override {
        if (!open) {
            PageSpec spec;
            spec.widthPt = width;
            spec.heightPt = height;
            m_dev.beginPage(spec);
            open = true;
        }
    }
    RenderState renderState() const override { return state; }
    bool open = false;
    double width = 612, height = 792;
    RenderState state;

private:
    Device& m_dev;
};

// Runs text through the interpreter; returns where it stopped.
inline size_t runText(Interpreter& gl, const std::string& text) {
    return gl.run(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

struct Box {
    double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
    void add(const Path& p) {
        for (Point q : p.points()) {
            x0 = std::min(x0, q.x), y0 = std::min(y0, q.y);
            x1 = std::max(x1, q.x), y1 = std::max(y1, q.y);
        }
    }
    bool empty() const { return x1 < x0; }
};

} // namespace qx::hpgl2::test
