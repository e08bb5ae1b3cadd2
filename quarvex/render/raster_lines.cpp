// The rasterising device's one-pixel lines: curves flattened, dash patterns, and the pixels of a
// line one pixel wide.
#include "render/raster_device_impl.h"

namespace qx {

// ---- one-pixel lines --------------------------------------------------------------------

std::vector<std::vector<Point>> RasterDevice::Impl::flatten(const Path& path) const {
    std::vector<std::vector<Point>> lines;
    const auto& pts = path.points();
    size_t pi = 0;
    Point start{}, cur{};
    bool have = false;
    auto ensure = [&] {
        if (!have) {
            lines.push_back({cur});
            have = true;
        }
    };
    for (Path::Op op : path.ops()) {
        switch (op) {
        case Path::Op::Move:
            cur = start = pts[pi++];
            lines.push_back({cur});
            have = true;
            break;
        case Path::Op::Line:
            ensure();
            cur = pts[pi++];
            lines.back().push_back(cur);
            break;
        case Path::Op::Curve: {
            ensure();
            const Point p0 = cur, p1 = pts[pi], p2 = pts[pi + 1], p3 = pts[pi + 2];
            pi += 3;
            auto dlen = [&](Point a, Point b) {
                return std::hypot((b.x - a.x) * geo.scaleX, (b.y - a.y) * geo.scaleY);
            };
            const double len = dlen(p0, p1) + dlen(p1, p2) + dlen(p2, p3);
            const int steps = std::clamp(int(std::ceil(std::sqrt(len) * 2)), 1, 1024);
            for (int i = 1; i <= steps; ++i) {
                const double t = double(i) / steps, u = 1 - t;
                const double b0 = u * u * u, b1 = 3 * u * u * t, b2 = 3 * u * t * t,
                             b3 = t * t * t;
                lines.back().push_back({b0 * p0.x + b1 * p1.x + b2 * p2.x + b3 * p3.x,
                                        b0 * p0.y + b1 * p1.y + b2 * p2.y + b3 * p3.y});
            }
            cur = p3;
            break;
        }
        case Path::Op::Close:
            if (have) {
                lines.back().push_back(start);
                cur = start;
                have = false;
            }
            break;
        }
    }
    return lines;
}

std::vector<std::vector<Point>> RasterDevice::Impl::dash(const std::vector<std::vector<Point>>& lines,
                                                         const std::vector<double>& pattern, double offset,
                                                         const Box& keep) {
    std::vector<std::vector<Point>> out;
    const size_t n = pattern.size();
    double total = 0;
    for (double v : pattern)
        total += v;
    // After this much path the pattern is back where it was, on and off included.
    const double period = n % 2 ? 2 * total : total;
    if (!std::isfinite(offset))
        offset = 0;

    size_t idx = 0;
    double left = 0;
    bool on = true, open = false;
    auto next = [&] {
        idx = (idx + 1) % n;
        left = pattern[idx];
        on = !on;
        open = false;
    };
    auto advance = [&](double len) {
        open = false;
        if (len < left) {
            left -= len;
            return;
        }
        len -= left;
        next();
        len = std::fmod(len, period);
        while (len >= left && len > 0) {
            len -= left;
            next();
        }
        left -= len;
    };
    auto walk = [&](Point a, Point b) {
        if (on && !open) {
            out.push_back({a});
            open = true;
        }
        double seg = std::hypot(b.x - a.x, b.y - a.y);
        while (seg > left) {
            const double t = left / seg;
            const Point m{a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t};
            if (on)
                out.back().push_back(m);
            seg -= left;
            a = m;
            next();
            if (on) {
                out.push_back({m});
                open = true;
            }
        }
        left -= seg;
        if (on)
            out.back().push_back(b);
    };

    for (const auto& line : lines) {
        idx = 0;
        left = pattern[0];
        on = true;
        double off = std::fmod(offset, period);
        if (off < 0)
            off += period;
        advance(off);
        for (size_t i = 1; i < line.size(); ++i) {
            const Point a = line[i - 1], b = line[i];
            const double len = std::hypot(b.x - a.x, b.y - a.y);
            // The part of a..b inside keep, as parameters t0..t1.
            double t0 = 0, t1 = 1;
            auto clipAxis = [&](double p, double d, double lo, double hi) {
                if (d == 0) {
                    if (p < lo || p > hi)
                        t1 = -1;
                    return;
                }
                double ta = (lo - p) / d, tb = (hi - p) / d;
                if (ta > tb)
                    std::swap(ta, tb);
                t0 = std::max(t0, ta);
                t1 = std::min(t1, tb);
            };
            clipAxis(a.x, b.x - a.x, keep.x0, keep.x1);
            clipAxis(a.y, b.y - a.y, keep.y0, keep.y1);
            if (!(t1 > t0)) {
                advance(len);
                continue;
            }
            const Point pa{a.x + (b.x - a.x) * t0, a.y + (b.y - a.y) * t0};
            const Point pb{a.x + (b.x - a.x) * t1, a.y + (b.y - a.y) * t1};
            if (t0 > 0)
                advance(len * t0);
            walk(pa, pb);
            if (t1 < 1)
                advance(len * (1 - t1));
        }
    }
    return out;
}

void RasterDevice::Impl::plotSegment(uint8_t* data, int bstride, int bx0, int by0, int w, int h,
        Point a, Point b) {
    auto set = [&](int64_t px, int64_t py) {
        if (px >= bx0 && px < bx0 + w && py >= by0 && py < by0 + h)
            data[size_t(py - by0) * bstride + size_t(px - bx0)] = 0xFF;
    };
    if (std::min(a.y, b.y) >= by0 + h + 1 || std::max(a.y, b.y) < by0 - 1 ||
        std::min(a.x, b.x) >= bx0 + w + 1 || std::max(a.x, b.x) < bx0 - 1)
        return;
    const double dx = b.x - a.x, dy = b.y - a.y;
    const bool flat = std::fabs(dx) >= std::fabs(dy);
    // The centres along the major axis that the segment reaches.
    const double lo = flat ? std::min(a.x, b.x) : std::min(a.y, b.y);
    const double hi = flat ? std::max(a.x, b.x) : std::max(a.y, b.y);
    const int64_t first = int64_t(std::ceil(std::clamp(lo - 0.5, -1e15, 1e15)));
    const int64_t last = int64_t(std::ceil(std::clamp(hi - 0.5, -1e15, 1e15))) - 1;
    if (first > last) {
        set(floorToInt64((a.x + b.x) / 2), floorToInt64((a.y + b.y) / 2));
        return;
    }
    if (flat) {
        if (a.x > b.x)
            std::swap(a, b);
        int64_t c0 = std::max<int64_t>(first, bx0);
        int64_t c1 = std::min<int64_t>(last, bx0 + w - 1);
        const double slope = (b.y - a.y) / (b.x - a.x);
        if (slope != 0) { // only the columns whose pixel can fall into the band
            double xa = a.x + (by0 - 1 - a.y) / slope, xb = a.x + (by0 + h + 1 - a.y) / slope;
            if (xa > xb)
                std::swap(xa, xb);
            c0 = std::max(c0, floorToInt64(xa) - 1);
            c1 = std::min(c1, floorToInt64(xb) + 1);
        }
        for (int64_t c = c0; c <= c1; ++c)
            set(c, floorToInt64(a.y + (double(c) + 0.5 - a.x) * slope));
    } else {
        if (a.y > b.y)
            std::swap(a, b);
        int64_t r0 = std::max<int64_t>(first, by0);
        int64_t r1 = std::min<int64_t>(last, by0 + h - 1);
        const double slope = (b.x - a.x) / (b.y - a.y);
        if (slope != 0) {
            double ya = a.y + (bx0 - 1 - a.x) / slope, yb = a.y + (bx0 + w + 1 - a.x) / slope;
            if (ya > yb)
                std::swap(ya, yb);
            r0 = std::max(r0, floorToInt64(ya) - 1);
            r1 = std::min(r1, floorToInt64(yb) + 1);
        }
        for (int64_t r = r0; r <= r1; ++r)
            set(floorToInt64(a.x + (double(r) + 0.5 - a.y) * slope), r);
    }
}

} // namespace qx
