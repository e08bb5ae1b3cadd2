#include "render/scan_converter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qx::raster {

namespace {

// Rows and columns are kept within a range no page reaches, so that nothing overflows.
constexpr double kLimit = 1e9;

double clampCoord(double v) { return std::clamp(v, -kLimit, kLimit); }

} // namespace

ScanConverter::ScanConverter(const std::vector<std::vector<Point>>& polylines, FillRule rule)
    : m_rule(rule) {
    size_t total = 0;
    for (const auto& line : polylines)
        total += line.size();
    m_edges.reserve(total);
    for (const auto& line : polylines) {
        const size_t n = line.size();
        if (n < 2)
            continue;
        for (size_t i = 0; i < n; ++i) {
            Point a = line[i], b = line[(i + 1) % n];
            if (!std::isfinite(a.x) || !std::isfinite(a.y) || !std::isfinite(b.x) || !std::isfinite(b.y))
                continue;
            a = {clampCoord(a.x), clampCoord(a.y)};
            b = {clampCoord(b.x), clampCoord(b.y)};
            if (a.y == b.y)
                continue;
            int dir = 1;
            if (a.y > b.y) {
                std::swap(a, b);
                dir = -1;
            }
            // The rows whose centres lie in [a.y, b.y).
            const double first = std::ceil(a.y - 0.5), end = std::ceil(b.y - 0.5);
            if (first >= end)
                continue;
            const double dxdy = (b.x - a.x) / (b.y - a.y);
            m_edges.push_back({a.x + (first + 0.5 - a.y) * dxdy, dxdy, static_cast<int64_t>(first),
                               static_cast<int64_t>(end), dir});
        }
    }
    std::stable_sort(m_edges.begin(), m_edges.end(),
                     [](const Edge& l, const Edge& r) { return l.first < r.first; });
    restart(m_edges.empty() ? 0 : m_edges.front().first);
}

// Adds an edge to the active list with its x at the centre of the given row.
void ScanConverter::activate(const Edge& e, int64_t row) {
    Edge a = e;
    a.x = e.x + static_cast<double>(row - e.first) * e.dxdy;
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

void ScanConverter::fill(uint8_t* data, int stride, int x0, int y0, int w, int h) {
    if (w <= 0 || h <= 0 || m_edges.empty())
        return;
    if (y0 != m_row)
        restart(y0);
    const int64_t rightPixel = static_cast<int64_t>(x0) + w;
    m_delta.assign(static_cast<size_t>(w), 0);
    for (int r = 0; r < h; ++r) {
        const int64_t row = static_cast<int64_t>(y0) + r;
        while (m_next < m_edges.size() && m_edges[m_next].first <= row) {
            if (m_edges[m_next].end > row)
                activate(m_edges[m_next], row);
            ++m_next;
        }
        // Each crossing changes the winding of the pixels whose centres lie at or right of it;
        // a running sum along the row gives every pixel's winding without sorting.
        // Active edges carry their x at the current row and step it by one row each time.
        size_t landed = 0, keep = 0;
        const size_t count = m_active.size();
        for (size_t i = 0; i < count; ++i) {
            Edge& e = m_active[i];
            if (e.end <= row)
                continue;
            // The first pixel whose centre lies at or right of the crossing: ceil(x - 0.5),
            // by integer conversion (x is bounded, so it fits).
            const double v = e.x - 0.5;
            e.x += e.dxdy;
            int64_t at = static_cast<int64_t>(v);
            at += static_cast<double>(at) < v;
            if (at < rightPixel) {
                m_delta[at <= x0 ? 0 : static_cast<size_t>(at - x0)] += e.dir;
                ++landed;
            }
            // Edges that have ended drop out; the others move up over them.
            if (keep != i)
                m_active[keep] = e;
            ++keep;
        }
        m_active.resize(keep);
        m_crossings += m_active.size();
        m_row = row + 1;
        if (landed == 0)
            continue;
        uint8_t* out = data + static_cast<size_t>(r) * static_cast<size_t>(stride);
        int winding = 0;
        for (int x = 0; x < w; ++x) {
            winding += m_delta[static_cast<size_t>(x)];
            m_delta[static_cast<size_t>(x)] = 0;
            if (m_rule == FillRule::EvenOdd ? (winding & 1) != 0 : winding != 0)
                out[x] = 0xFF;
        }
    }
}

} // namespace qx::raster
