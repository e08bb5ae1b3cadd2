#include "render/scan_converter.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// Where an edge's line meets a row or a column, as cairo finds it: the quotient truncated.
int64_t xOnLine(int64_t x1, int64_t y1, int64_t x2, int64_t y2, int64_t y) {
    if (y == y1)
        return x1;
    if (y == y2)
        return x2;
    return x1 + (y - y1) * (x2 - x1) / (y2 - y1);
}
int64_t yOnLine(int64_t x1, int64_t y1, int64_t x2, int64_t y2, int64_t x) {
    if (x == x1)
        return y1;
    if (x == x2)
        return y2;
    return x2 == x1 ? y1 : y1 + (x - x1) * (y2 - y1) / (x2 - x1);
}

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

ScanConverter::ScanConverter(const std::vector<std::vector<Point>>& polylines, FillRule rule) {
    reset(polylines, rule);
}

void ScanConverter::reset(const std::vector<std::vector<Point>>& polylines, FillRule rule) {
    m_rule = rule;
    m_exact = true;
    m_cut = false;
    m_rectilinear = true;
    m_minX = m_minY = m_maxX = m_maxY = 0;
    m_edgeMinX = m_edgeMaxX = 0;
    m_edges.clear();
    m_next = 0;
    m_row = 0;
    m_active.clear();
    m_crossings = 0;
    size_t total = 0;
    for (const auto& line : polylines)
        total += line.size();
    m_edges.reserve(total);
    int32_t minX = INT32_MAX, minY = INT32_MAX, maxX = INT32_MIN, maxY = INT32_MIN;
    std::vector<int32_t>& fx = m_fx;
    std::vector<int32_t>& fy = m_fy;
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
            m_edges.push_back({x1, y1, x2, y2, y1, y2, static_cast<int32_t>(roundFixed(y1)),
                               static_cast<int32_t>(roundFixed(y2)), dir});
        }
    }
    if (m_edges.empty())
        return;
    m_minX = minX;
    m_minY = minY;
    m_maxX = maxX;
    m_maxY = maxY;
    sortEdges();
}

ScanConverter::ScanConverter(std::vector<Edge> edges, FillRule rule)
    : m_rule(rule), m_cut(true), m_edges(std::move(edges)) {
    if (!m_edges.empty())
        sortEdges();
}

void ScanConverter::sortEdges() {
    // The extent of the edges' ends: cairo's polygon extent when the band holds the whole path.
    m_edgeMinX = INT32_MAX;
    m_edgeMaxX = INT32_MIN;
    for (const Edge& e : m_edges) {
        m_edgeMinX = std::min({m_edgeMinX, e.x1, e.x2});
        m_edgeMaxX = std::max({m_edgeMaxX, e.x1, e.x2});
    }
    std::stable_sort(m_edges.begin(), m_edges.end(),
                     [](const Edge& l, const Edge& r) { return l.first < r.first; });
    // Room for the edges a row of a small polygon crosses at once, rather than growing to it.
    m_active.reserve(std::min<size_t>(m_edges.size(), 64));
    restart(m_edges.front().first);
}

void ScanConverter::ActiveEdges::clear() { resize(0); }

void ScanConverter::ActiveEdges::reserve(size_t n) {
    for (auto* v : {&xq, &xr, &dq, &dr, &dy, &end, &dir})
        v->reserve(n);
}

void ScanConverter::ActiveEdges::resize(size_t n) {
    for (auto* v : {&xq, &xr, &dq, &dr, &dy, &end, &dir})
        v->resize(n);
}

void ScanConverter::ActiveEdges::copy(size_t from, size_t to) {
    for (auto* v : {&xq, &xr, &dq, &dr, &dy, &end, &dir})
        (*v)[to] = (*v)[from];
}

inline void ScanConverter::ActiveEdges::stepAll() {
    int32_t* q = xq.data();
    int32_t* r = xr.data();
    const int32_t* sq = dq.data();
    const int32_t* sr = dr.data();
    const int32_t* h = dy.data();
    const size_t n = xq.size();
    size_t i = 0;
#if defined(__SSE2__)
    // Four edges at a time (SSE2 is part of every x86-64).
    const __m128i minusOne = _mm_set1_epi32(-1);
    for (; i + 4 <= n; i += 4) {
        __m128i vq = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q + i));
        __m128i rem = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r + i)),
                                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(sr + i)));
        const __m128i carry = _mm_cmpgt_epi32(rem, minusOne);
        vq = _mm_sub_epi32(_mm_add_epi32(vq, _mm_loadu_si128(reinterpret_cast<const __m128i*>(sq + i))), carry);
        rem = _mm_sub_epi32(rem, _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h + i)), carry));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(q + i), vq);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(r + i), rem);
    }
#endif
    for (; i < n; ++i) {
        const int32_t rem = r[i] + sr[i];
        const int32_t carry = ~(rem >> 31); // all ones when the remainder reached zero
        q[i] = q[i] + sq[i] - carry;
        r[i] = rem - (h[i] & carry);
    }
}

// Adds an edge to the active list with its crossing at the given row.
void ScanConverter::activate(const Edge& e, int64_t row) {
    const int64_t dx = int64_t(e.x2) - e.x1, dy = int64_t(e.y2) - e.y1;
    int64_t q, r;
    // cairo evaluates the edge 127/256 of a pixel below the top of the row.
    floorDiv((row * 256 + 127 - e.y1) * dx, dy, q, r);
    m_active.xq.push_back(static_cast<int32_t>(e.x1 + q));
    m_active.xr.push_back(static_cast<int32_t>(r - dy));
    floorDiv(dx * 256, dy, q, r);
    // An edge too flat to reach a second row never steps: its step only has to stay in range.
    m_active.dq.push_back(static_cast<int32_t>(std::clamp<int64_t>(q, -(int64_t(1) << 30), int64_t(1) << 30)));
    m_active.dr.push_back(static_cast<int32_t>(r));
    m_active.dy.push_back(static_cast<int32_t>(dy));
    m_active.end.push_back(e.end);
    m_active.dir.push_back(e.dir);
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
    const bool contained = !m_cut && floorFixed(m_minX) >= x0 && ceilFixed(m_maxX) <= int64_t(x0) + w &&
                           floorFixed(m_minY) >= y0 && ceilFixed(m_maxY) <= int64_t(y0) + h;
    int64_t ex1 = m_edgeMinX, ex2 = m_edgeMaxX;
    if (!contained) {
        const int64_t top = int64_t(y0) * 256, bottom = (int64_t(y0) + h) * 256;
        ex1 = INT64_MAX;
        ex2 = INT64_MIN;
        auto xAt = [](const Edge& e, int64_t y) { return xOnLine(e.x1, e.y1, e.x2, e.y2, y); };
        for (const Edge& e : m_edges) {
            if (e.bottom <= top || e.top >= bottom)
                continue;
            const int64_t a = xAt(e, std::max<int64_t>(e.top, top));
            const int64_t b = xAt(e, std::min<int64_t>(e.bottom, bottom));
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

std::vector<ScanConverter::Edge> ScanConverter::cutTo(int64_t left, int64_t right, int64_t top,
                                                      int64_t bottom) const {
    std::vector<Edge> out;
    out.reserve(m_edges.size() + 8);
    // The rows [t, b) of the line (x1, y1)-(x2, y2).
    auto add = [&](int64_t x1, int64_t y1, int64_t x2, int64_t y2, int64_t t, int64_t b, int32_t dir) {
        out.push_back({int32_t(x1), int32_t(y1), int32_t(x2), int32_t(y2), int32_t(t), int32_t(b),
                       int32_t(roundFixed(t)), int32_t(roundFixed(b)), dir});
    };
    auto leftSide = [&](int64_t t, int64_t b, int32_t dir) { add(left, top, left, bottom, t, b, dir); };
    auto rightSide = [&](int64_t t, int64_t b, int32_t dir) { add(right, top, right, bottom, t, b, dir); };
    for (const Edge& e : m_edges) {
        if (e.top >= bottom || e.bottom <= top)
            continue;
        int64_t ty = std::max<int64_t>(e.top, top), by = std::min<int64_t>(e.bottom, bottom);
        const int64_t pl = std::min(e.x1, e.x2), pr = std::max(e.x1, e.x2);
        if (left <= pl && pr <= right) {
            add(e.x1, e.y1, e.x2, e.y2, ty, by, e.dir);
            continue;
        }
        if (pr <= left) { // wholly beyond a side: that side instead
            leftSide(ty, by, e.dir);
            continue;
        }
        if (right <= pl) {
            rightSide(ty, by, e.dir);
            continue;
        }
        // Across a side: the side where the line is beyond it, the line where it is within.
        auto xAt = [&](int64_t y) { return xOnLine(e.x1, e.y1, e.x2, e.y2, y); };
        auto yAt = [&](int64_t x) { return yOnLine(e.x1, e.y1, e.x2, e.y2, x); };
        // The row where the line meets column `side`, moved by `nudge` while the line's point
        // there still lies beyond the side.
        auto meet = [&](int64_t side, bool isLeft, int64_t nudge) {
            const int64_t y = yAt(side), x = xAt(y);
            return (isLeft ? x < side : x > side) ? y + nudge : y;
        };
        // The rows above `at` (or from `at` down) lie beyond a side: that side instead.
        auto cutTop = [&](int64_t at, auto&& side) {
            at = std::min(at, by);
            if (ty < at) {
                side(ty, at, e.dir);
                ty = at;
            }
        };
        auto cutBottom = [&](int64_t at, auto&& side) {
            at = std::max(at, ty);
            if (by > at) {
                side(at, by, e.dir);
                by = at;
            }
        };
        if (e.x1 <= e.x2) { // down to the right: beyond the left side above, the right below
            cutTop(pl < left ? meet(left, true, 1) : ty, leftSide);
            cutBottom(pr > right ? meet(right, false, -1) : by, rightSide);
        } else { // down to the left: beyond the right side above, the left below
            cutTop(pr > right ? meet(right, false, 1) : ty, rightSide);
            cutBottom(pl < left ? meet(left, true, -1) : by, leftSide);
        }
        if (ty != by)
            add(e.x1, e.y1, e.x2, e.y2, ty, by, e.dir);
    }
    return out;
}

void ScanConverter::fill(uint8_t* data, int stride, int x0, int y0, int w, int h) {
    spans(x0, y0, w, h, [&](const Span* run, size_t count) {
        for (size_t i = 0; i < count; ++i)
            std::memset(data + static_cast<size_t>(run[i].y - y0) * static_cast<size_t>(stride) +
                            (run[i].a - x0),
                        0xFF, static_cast<size_t>(run[i].b - run[i].a));
    });
}

void ScanConverter::spans(int x0, int y0, int w, int h, const SpanBatchFn& batch) {
    if (w <= 0 || h <= 0 || m_edges.empty())
        return;
    if (!m_cut && !fitsAcross(x0, int64_t(x0) + w)) {
        // Edges leave the band sideways: the polygon as cairo cuts it to the band.
        ScanConverter part(cutTo(int64_t(x0) * 256, (int64_t(x0) + w) * 256, int64_t(y0) * 256,
                                 (int64_t(y0) + h) * 256),
                           m_rule);
        part.spans(x0, y0, w, h, batch);
        m_crossings += part.m_crossings;
        return;
    }
    int64_t lo, hi;
    columnRange(x0, y0, w, h, lo, hi);
    if (lo >= hi)
        return;
    if (y0 != m_row)
        restart(y0);
    const size_t n = static_cast<size_t>(hi - lo);
    const int32_t mask = m_rule == FillRule::EvenOdd ? 1 : ~0;
    bool denseReady = false;
    constexpr size_t kBatch = 256;
    // The stretches found and the crossings of a row go into arrays sized once, not grown.
    if (m_batch.size() < kBatch)
        m_batch.resize(kBatch);
    Span* spansOut = m_batch.data();
    size_t spanCount = 0;
    auto emit = [&](int64_t row, int64_t a, int64_t b) {
        a = std::max(a, lo);
        b = std::min(b, hi);
        if (a >= b)
            return;
        spansOut[spanCount++] = {static_cast<int32_t>(row), static_cast<int32_t>(a), static_cast<int32_t>(b)};
        if (spanCount == kBatch) {
            batch(spansOut, spanCount);
            spanCount = 0;
        }
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
        // each crossing adds to the cell of the column it lands on, and a running sum along
        // the row gives every pixel's winding without sorting. A cell holds the crossings that
        // landed in its upper half and the sum of their directions in its lower half; cell 0
        // gathers those left of the columns, the last those beyond the one just right of them.
        const bool dense = m_active.size() * 8 >= n;
        if (dense && !denseReady) {
            m_cells.assign(n + 3, 0);
            denseReady = true;
        }
        if (m_cross.size() < m_active.size())
            m_cross.resize(m_active.size() * 2);
        int64_t* cross = m_cross.data();
        size_t k = 0;
        // Ended edges leave the list by taking the last one's place: the order does not matter.
        // The crossings are taken first, then every edge steps to the next row at once.
        ActiveEdges& act = m_active;
        size_t count = act.size();
        const int32_t* ends = act.end.data();
        const int32_t* xs = act.xq.data();
        const int32_t* dirs = act.dir.data();
        if (dense) {
            const int64_t last = static_cast<int64_t>(n) + 2;
            int64_t* cells = m_cells.data();
            for (size_t i = 0; i < count;) {
                if (ends[i] <= row) {
                    act.copy(--count, i);
                    continue;
                }
                const int64_t at = std::clamp<int64_t>(roundFixed(xs[i]) - lo + 1, 0, last);
                cells[at] += (int64_t(1) << 32) + dirs[i];
                ++i;
            }
        } else {
            for (size_t i = 0; i < count;) {
                if (ends[i] <= row) {
                    act.copy(--count, i);
                    continue;
                }
                cross[k++] = roundFixed(xs[i]) * 2 + (dirs[i] > 0);
                ++i;
            }
        }
        if (count != act.size())
            act.resize(count);
        act.stepAll();
        m_crossings += count;
        m_row = row + 1;
        if (!dense) {
            // cairo's walk along the sorted crossings: a stretch opens at the first crossing
            // of a run and closes where the winding is outside and the next crossing lies more
            // than one column further on.
            if (k == 2 && ((cross[0] ^ cross[1]) & 1)) {
                // The usual row of a polygon: in at one crossing, out at the other.
                const int64_t a = std::min(cross[0], cross[1]) >> 1, b = std::max(cross[0], cross[1]) >> 1;
                emit(row, a, b);
                continue;
            }
            if (k <= 16) {
                // Mostly four: sorted in place without the general sort's set-up.
                int64_t* c = cross;
                for (size_t i = 1; i < k; ++i) {
                    const int64_t v = c[i];
                    size_t j = i;
                    for (; j > 0 && c[j - 1] > v; --j)
                        c[j] = c[j - 1];
                    c[j] = v;
                }
            } else {
                std::sort(cross, cross + k);
            }
            int64_t start = INT64_MIN;
            int32_t winding = 0;
            for (size_t i = 0; i < k;) {
                const int64_t c = cross[i] >> 1;
                for (; i < k && (cross[i] >> 1) == c; ++i)
                    winding += (cross[i] & 1) ? 1 : -1;
                if (start == INT64_MIN)
                    start = c;
                if ((winding & mask) == 0 && (i == k || (cross[i] >> 1) > c + 1)) {
                    emit(row, start, c);
                    start = INT64_MIN;
                }
            }
            continue;
        }
        int64_t* cells = m_cells.data();
        int32_t winding = static_cast<int32_t>(cells[0]);
        cells[0] = 0;
        int64_t start = -1;
        for (size_t x = 1; x <= n; ++x) {
            const int64_t cell = cells[x];
            winding += static_cast<int32_t>(cell);
            // Inside, or outside between two landings side by side (cairo closes that gap).
            const bool covered = (winding & mask) != 0 || (cell != 0 && cells[x + 1] != 0);
            cells[x] = 0;
            if (covered) {
                if (start < 0)
                    start = static_cast<int64_t>(x) - 1;
            } else if (start >= 0) {
                emit(row, lo + start, lo + static_cast<int64_t>(x) - 1);
                start = -1;
            }
        }
        if (start >= 0)
            emit(row, lo + start, hi);
        cells[n + 1] = 0;
        cells[n + 2] = 0;
    }
    if (spanCount > 0)
        batch(spansOut, spanCount);
}

} // namespace qx::raster
