#include "render/scan_converter.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

namespace qx::raster {

namespace {

// Coordinates are kept within this many pixels either side of the origin, so that every
// fixed-point value and every step of an edge fits 32 bits with room to spare.
constexpr double kLimitPx = 1 << 20;

int32_t toFixed(double v, bool& exact) {
    if (!(std::fabs(v) <= kLimitPx)) {
        exact = false;
        v = std::isnan(v) ? 0.0 : std::clamp(v, -kLimitPx, kLimitPx);
    }
    // Rounded to the nearest 1/256, ties to even, as cairo rounds.
    return static_cast<int32_t>(std::nearbyint(v * 256.0));
}

// The pixel row or column a fixed-point coordinate rounds to (halves round down).
inline int64_t roundFixed(int64_t v) { return (v + 127) >> 8; }
inline int64_t floorFixed(int64_t v) { return v >> 8; }
inline int64_t ceilFixed(int64_t v) { return -((-v) >> 8); }

// Floored division and its remainder (0 <= rem < d) for d > 0.
inline void floorDiv(int64_t n, int64_t d, int64_t& quo, int64_t& rem) {
    quo = n / d;
    rem = n % d;
    if (rem < 0) {
        --quo;
        rem += d;
    }
}

} // namespace

ScanConverter::ScanConverter(const std::vector<std::vector<Point>>& polylines, FillRule rule)
    : m_rule(rule) {
    size_t total = 0;
    for (const auto& line : polylines)
        total += line.size();
    m_edges.reserve(total);
    int32_t minX = INT32_MAX, minY = INT32_MAX, maxX = INT32_MIN, maxY = INT32_MIN;
    std::vector<int32_t> fx, fy;
    for (const auto& line : polylines) {
        const size_t n = line.size();
        if (n < 2)
            continue;
        fx.resize(n);
        fy.resize(n);
        for (size_t i = 0; i < n; ++i) {
            fx[i] = toFixed(line[i].x, m_exact);
            fy[i] = toFixed(line[i].y, m_exact);
            minX = std::min(minX, fx[i]);
            maxX = std::max(maxX, fx[i]);
            minY = std::min(minY, fy[i]);
            maxY = std::max(maxY, fy[i]);
        }
        for (size_t i = 0; i < n; ++i) {
            const size_t j = i + 1 < n ? i + 1 : 0;
            int32_t x1 = fx[i], y1 = fy[i], x2 = fx[j], y2 = fy[j];
            if (x1 != x2 && y1 != y2)
                m_rectilinear = false;
            if (y1 == y2)
                continue;
            int32_t dir = 1;
            if (y1 > y2) {
                std::swap(x1, x2);
                std::swap(y1, y2);
                dir = -1;
            }
            m_edges.push_back({x1, y1, x2, y2, static_cast<int32_t>(roundFixed(y1)),
                               static_cast<int32_t>(roundFixed(y2)), dir});
        }
    }
    if (m_edges.empty())
        return;
    m_minX = minX;
    m_minY = minY;
    m_maxX = maxX;
    m_maxY = maxY;
    // The extent of the edges' ends: cairo's polygon extent when the band holds the whole path.
    m_edgeMinX = INT32_MAX;
    m_edgeMaxX = INT32_MIN;
    for (const Edge& e : m_edges) {
        m_edgeMinX = std::min({m_edgeMinX, e.x1, e.x2});
        m_edgeMaxX = std::max({m_edgeMaxX, e.x1, e.x2});
    }
    std::stable_sort(m_edges.begin(), m_edges.end(),
                     [](const Edge& l, const Edge& r) { return l.first < r.first; });
    restart(m_edges.front().first);
}

// Adds an edge to the active list with its crossing at the given row.
void ScanConverter::activate(const Edge& e, int64_t row) {
    const int64_t dx = int64_t(e.x2) - e.x1, dy = int64_t(e.y2) - e.y1;
    int64_t q, r;
    // cairo evaluates the edge 127/256 of a pixel below the top of the row.
    floorDiv((row * 256 + 127 - e.y1) * dx, dy, q, r);
    Active a;
    a.xq = static_cast<int32_t>(e.x1 + q);
    a.xr = static_cast<int32_t>(r - dy);
    floorDiv(dx * 256, dy, q, r);
    // An edge too flat to reach a second row never steps: its step only has to stay in range.
    a.dq = static_cast<int32_t>(std::clamp<int64_t>(q, -(int64_t(1) << 30), int64_t(1) << 30));
    a.dr = static_cast<int32_t>(r);
    a.dy = static_cast<int32_t>(dy);
    a.end = e.end;
    a.dir = e.dir;
    m_active.push_back(a);
}

void ScanConverter::restart(int64_t row) {
    m_active.clear();
    m_next = static_cast<size_t>(
        std::upper_bound(m_edges.begin(), m_edges.end(), row,
                         [](int64_t r, const Edge& e) { return r < e.first; }) -
        m_edges.begin());
    for (size_t i = 0; i < m_next; ++i)
        if (m_edges[i].end > row)
            activate(m_edges[i], row);
    m_row = row;
}

void ScanConverter::columnRange(int x0, int y0, int w, int h, int64_t& lo, int64_t& hi) const {
    // cairo clips the polygon to the band when the path's extent, rounded out, does not fit in
    // it; the polygon's extent then comes from the edges cut at the band's top and bottom.
    const bool contained = floorFixed(m_minX) >= x0 && ceilFixed(m_maxX) <= int64_t(x0) + w &&
                           floorFixed(m_minY) >= y0 && ceilFixed(m_maxY) <= int64_t(y0) + h;
    int64_t ex1 = m_edgeMinX, ex2 = m_edgeMaxX;
    if (!contained) {
        const int64_t top = int64_t(y0) * 256, bottom = (int64_t(y0) + h) * 256;
        ex1 = INT64_MAX;
        ex2 = INT64_MIN;
        auto xAt = [](const Edge& e, int64_t y) -> int64_t {
            if (y == e.y1)
                return e.x1;
            if (y == e.y2)
                return e.x2;
            // Truncated, as cairo computes the ends of a cut edge.
            return e.x1 + (y - e.y1) * (int64_t(e.x2) - e.x1) / (int64_t(e.y2) - e.y1);
        };
        for (const Edge& e : m_edges) {
            if (e.y2 <= top || e.y1 >= bottom)
                continue;
            const int64_t a = xAt(e, std::max<int64_t>(e.y1, top));
            const int64_t b = xAt(e, std::min<int64_t>(e.y2, bottom));
            ex1 = std::min({ex1, a, b});
            ex2 = std::max({ex2, a, b});
        }
        if (ex1 > ex2) {
            lo = hi = x0;
            return;
        }
    }
    lo = std::max<int64_t>(x0, floorFixed(ex1));
    hi = std::min<int64_t>(int64_t(x0) + w, ceilFixed(ex2));
}

void ScanConverter::fill(uint8_t* data, int stride, int x0, int y0, int w, int h) {
    spans(x0, y0, w, h, [&](int y, int a, int b) {
        std::memset(data + static_cast<size_t>(y - y0) * static_cast<size_t>(stride) + (a - x0), 0xFF,
                    static_cast<size_t>(b - a));
    });
}

void ScanConverter::spans(int x0, int y0, int w, int h, const SpanFn& span) {
    if (w <= 0 || h <= 0 || m_edges.empty())
        return;
    int64_t lo, hi;
    columnRange(x0, y0, w, h, lo, hi);
    if (lo >= hi)
        return;
    if (y0 != m_row)
        restart(y0);
    const size_t n = static_cast<size_t>(hi - lo);
    const int32_t mask = m_rule == FillRule::EvenOdd ? 1 : ~0;
    bool denseReady = false;
    auto emit = [&](int64_t row, int64_t a, int64_t b) {
        a = std::max(a, lo);
        b = std::min(b, hi);
        if (a < b)
            span(static_cast<int>(row), static_cast<int>(a), static_cast<int>(b));
    };
    for (int r = 0; r < h; ++r) {
        const int64_t row = static_cast<int64_t>(y0) + r;
        while (m_next < m_edges.size() && m_edges[m_next].first <= row) {
            if (m_edges[m_next].end > row)
                activate(m_edges[m_next], row);
            ++m_next;
        }
        if (m_active.empty()) {
            m_row = row + 1;
            continue;
        }
        // Few crossings for the width: sorted, and the stretches found between them. Many:
        // each crossing adds its direction to the winding change where it lands, and a running
        // sum along the row gives every pixel's winding without sorting.
        const bool dense = m_active.size() * 8 >= n;
        if (dense && !denseReady) {
            // One cell more than the columns: an edge landing just right of them closes a gap.
            m_delta.assign(n + 1, 0);
            m_landed.assign(n + 1, 0);
            denseReady = true;
        }
        m_cross.clear();
        int32_t left = 0; // crossings left of the columns only add to the starting winding
        size_t keep = 0;
        const size_t count = m_active.size();
        for (size_t i = 0; i < count; ++i) {
            Active e = m_active[i];
            if (e.end <= row)
                continue; // ended: the others move up over it
            const int64_t c = roundFixed(e.xq);
            e.xq += e.dq;
            e.xr += e.dr;
            const int32_t carry = ~(e.xr >> 31); // all ones when the remainder reached zero
            e.xq -= carry;
            e.xr -= e.dy & carry;
            m_active[keep++] = e;
            if (!dense) {
                m_cross.push_back(c * 2 + (e.dir > 0));
                continue;
            }
            const int64_t at = c - lo;
            if (at < 0) {
                left += e.dir;
            } else if (at <= static_cast<int64_t>(n)) {
                m_delta[static_cast<size_t>(at)] += e.dir;
                m_landed[static_cast<size_t>(at)] = 1;
            }
        }
        m_active.resize(keep);
        m_crossings += keep;
        m_row = row + 1;
        if (!dense) {
            // cairo's walk along the sorted crossings: a stretch opens at the first crossing
            // of a run and closes where the winding is outside and the next crossing lies more
            // than one column further on.
            std::sort(m_cross.begin(), m_cross.end());
            const size_t k = m_cross.size();
            int64_t start = INT64_MIN;
            int32_t winding = 0;
            for (size_t i = 0; i < k;) {
                const int64_t c = m_cross[i] >> 1;
                for (; i < k && (m_cross[i] >> 1) == c; ++i)
                    winding += (m_cross[i] & 1) ? 1 : -1;
                if (start == INT64_MIN)
                    start = c;
                if ((winding & mask) == 0 && (i == k || (m_cross[i] >> 1) > c + 1)) {
                    emit(row, start, c);
                    start = INT64_MIN;
                }
            }
            continue;
        }
        int32_t winding = left;
        int64_t start = -1;
        for (size_t x = 0; x < n; ++x) {
            winding += m_delta[x];
            // Inside, or outside between two landings side by side (cairo closes that gap).
            const bool covered = (winding & mask) != 0 || (m_landed[x] & m_landed[x + 1]) != 0;
            m_delta[x] = 0;
            m_landed[x] = 0;
            if (covered) {
                if (start < 0)
                    start = static_cast<int64_t>(x);
            } else if (start >= 0) {
                emit(row, lo + start, lo + static_cast<int64_t>(x));
                start = -1;
            }
        }
        if (start >= 0)
            emit(row, lo + start, hi);
        m_delta[n] = 0;
        m_landed[n] = 0;
    }
}

} // namespace qx::raster
