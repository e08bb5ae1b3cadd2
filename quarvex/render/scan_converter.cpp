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

void ScanConverter::restart(int64_t row) {
    m_active.clear();
    m_next = static_cast<size_t>(
        std::upper_bound(m_edges.begin(), m_edges.end(), row,
                         [](int64_t r, const Edge& e) { return r < e.first; }) -
        m_edges.begin());
    for (size_t i = 0; i < m_next; ++i)
        if (m_edges[i].end > row)
            m_active.push_back(m_edges[i]);
    m_row = row;
}

void ScanConverter::fill(uint8_t* data, int stride, int x0, int y0, int w, int h) {
    if (w <= 0 || h <= 0 || m_edges.empty())
        return;
    if (y0 != m_row)
        restart(y0);
    const double left = x0, right = static_cast<double>(x0) + w;
    m_delta.assign(static_cast<size_t>(w), 0);
    for (int r = 0; r < h; ++r) {
        const int64_t row = static_cast<int64_t>(y0) + r;
        while (m_next < m_edges.size() && m_edges[m_next].first <= row) {
            if (m_edges[m_next].end > row)
                m_active.push_back(m_edges[m_next]);
            ++m_next;
        }
        // Each crossing changes the winding of the pixels whose centres lie at or right of it;
        // a running sum along the row gives every pixel's winding without sorting.
        size_t keep = 0, landed = 0;
        for (size_t i = 0; i < m_active.size(); ++i) {
            const Edge e = m_active[i];
            if (e.end <= row)
                continue;
            m_active[keep++] = e;
            const double at = std::ceil(e.x + static_cast<double>(row - e.first) * e.dxdy - 0.5);
            if (at >= right)
                continue;
            m_delta[at <= left ? 0 : static_cast<size_t>(at - left)] += e.dir;
            ++landed;
        }
        m_active.resize(keep, Edge{});
        m_crossings += keep;
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
