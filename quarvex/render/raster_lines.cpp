// The rasterising device's one-pixel lines: curves flattened, dash patterns, and the pixels of a
// line one pixel wide.
#include "render/raster_device_impl.h"

#include <type_traits>

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
    // The line is stepped along its major axis u (x for a flat line, y for a steep one), with
    // v the other: the same code serves both, the coordinates swapped going in and coming out.
    const bool flat = std::fabs(b.x - a.x) >= std::fabs(b.y - a.y);
    auto walk = [&](auto flatAxis) {
        constexpr bool isFlat = decltype(flatAxis)::value;
        auto u = [](Point p) { return isFlat ? p.x : p.y; };
        auto v = [](Point p) { return isFlat ? p.y : p.x; };
        const int u0 = isFlat ? bx0 : by0, uSize = isFlat ? w : h;
        const int v0 = isFlat ? by0 : bx0, vSize = isFlat ? h : w;
        // The centres along the major axis that the segment reaches.
        const double lo = std::min(u(a), u(b)), hi = std::max(u(a), u(b));
        const int64_t first = int64_t(std::ceil(std::clamp(lo - 0.5, -1e15, 1e15)));
        const int64_t last = int64_t(std::ceil(std::clamp(hi - 0.5, -1e15, 1e15))) - 1;
        if (first > last) {
            set(floorToInt64((a.x + b.x) / 2), floorToInt64((a.y + b.y) / 2));
            return;
        }
        if (u(a) > u(b))
            std::swap(a, b);
        int64_t c0 = std::max<int64_t>(first, u0);
        int64_t c1 = std::min<int64_t>(last, u0 + uSize - 1);
        const double slope = (v(b) - v(a)) / (u(b) - u(a));
        if (slope != 0) { // only the steps whose pixel can fall into the band
            double ua = u(a) + (v0 - 1 - v(a)) / slope, ub = u(a) + (v0 + vSize + 1 - v(a)) / slope;
            if (ua > ub)
                std::swap(ua, ub);
            c0 = std::max(c0, floorToInt64(ua) - 1);
            c1 = std::min(c1, floorToInt64(ub) + 1);
        }
        for (int64_t c = c0; c <= c1; ++c) {
            const int64_t across = floorToInt64(v(a) + (double(c) + 0.5 - u(a)) * slope);
            if constexpr (isFlat)
                set(c, across);
            else
                set(across, c);
        }
    };
    if (flat)
        walk(std::true_type{});
    else
        walk(std::false_type{});
}

} // namespace qx
