#pragma once
// Filling polygons without anti-aliasing: an active-edge scan line converter that gives the
// pixels cairo's own non-anti-aliased fill gives, in O(n log n) for n edges plus the crossings
// of the rows, whatever the self-intersections.
//
// Points are rounded to 1/256 pixel (24.8 fixed point, ties to even) as cairo rounds them, and
// every edge's crossing of a row is found in exact integer arithmetic:
//  - an edge takes part in row r when its upper end y1 and lower end y2 (fixed point) satisfy
//    round(y1) <= r < round(y2), where round(v) = floor((v + 127) / 256);
//  - on that row it crosses at x = x1 + floor((256 r + 127 - y1) dx / dy), which lands on pixel
//    column c = floor((x + 127) / 256): the pixels from c rightwards have their winding changed;
//  - a pixel is covered when its winding is inside by the fill rule, and also when it is outside
//    but an edge lands on it and another on the pixel to its right (cairo closes such one-pixel
//    gaps between stretches);
//  - coverage stays within the polygon's own extent, rounded out to whole pixels;
//  - a band the polygon's points do not fit across gets the polygon cut at its sides as cairo
//    cuts it: the part of an edge beyond a side becomes an upright edge along that side, the
//    rest keeps its line but not all of its rows.
// Edges are sorted once by their first row; each row then steps only the edges that cross it
// and adds each crossing's direction where it lands: no sorting of crossings, no allocation
// per row.

#include "render/device.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace qx::raster {

class ScanConverter {
public:
    // polylines: closed polygons in device pixels (the last point joins the first).
    ScanConverter(const std::vector<std::vector<Point>>& polylines, FillRule rule);
    // Starts afresh with other polygons, keeping the memory of the last ones.
    void reset(const std::vector<std::vector<Point>>& polylines, FillRule rule);

    // Marks the covered pixels of the band [x0, x0 + w) x [y0, y0 + h) with 0xFF and leaves the
    // others as they are; data[0] is pixel (x0, y0), rows stride bytes apart. The pixels are the
    // ones cairo gives for a fill of the same polygons on an A8 surface of that band. Bands may
    // come in any order; rows are fastest in increasing order.
    void fill(uint8_t* data, int stride, int x0, int y0, int w, int h);

    // The same pixels as stretches: each covered stretch [a, b) of each row y of the band, rows
    // in order and stretches left to right, handed to batch(spans, count) some hundreds at a
    // time (a call per stretch would cost more than drawing a short one). A row costs its
    // crossings (sorted when few) or, when they are many, its width: never the band's area for
    // a small polygon.
    struct Span {
        int32_t y, a, b;
    };
    using SpanBatchFn = std::function<void(const Span* spans, size_t count)>;
    void spans(int x0, int y0, int w, int h, const SpanBatchFn& batch);

    // True when every point lay within the range where the fixed-point coordinates are cairo's
    // own (points beyond about a million pixels are pulled in).
    bool exact() const { return m_exact; }
    // True when every edge is horizontal or vertical once rounded: cairo fills such paths as
    // boxes, not through its scan converter.
    bool rectilinear() const { return m_rectilinear; }
    // True when every point lies within the columns [x0, x1), so that no edge is cut at a side.
    bool fitsAcross(int64_t x0, int64_t x1) const {
        return m_edges.empty() || (m_minX >= x0 * 256 && m_maxX <= x1 * 256);
    }

    size_t edgeCount() const { return m_edges.size(); }
    // Edge crossings computed so far: the work of the rows, for tests that bound it.
    uint64_t crossings() const { return m_crossings; }

private:
    struct Edge {
        int32_t x1, y1, x2, y2; // its line, fixed point, y1 < y2
        int32_t top, bottom;    // the part of the line that is an edge: y1 <= top < bottom <= y2
        int32_t first, end;     // the rows it takes part in: [first, end)
        int32_t dir;            // +1 downwards, -1 upwards
    };
    // A converter of edges already made: those of another cut at a band's sides.
    ScanConverter(std::vector<Edge> edges, FillRule rule);
    // The edges as cairo cuts them to the box [left, right) x [top, bottom) (fixed point).
    std::vector<Edge> cutTo(int64_t left, int64_t right, int64_t top, int64_t bottom) const;
    void sortEdges();
    // The edges taking part in the current row, a field an array so that the stepping of a
    // whole row vectorises: crossing x (fixed point) as quotient and remainder,
    // x = xq + (xr + dy) / dy with -dy <= xr < 0, stepped a row at a time exactly by the
    // quotient and remainder of 256 dx / dy; the row it ends before; its direction.
    struct ActiveEdges {
        std::vector<int32_t> xq, xr, dq, dr, dy, end, dir;
        size_t size() const { return xq.size(); }
        bool empty() const { return xq.empty(); }
        void clear();
        void resize(size_t n);
        void reserve(size_t n);
        void copy(size_t from, size_t to); // edge from takes the place of edge to
        void stepAll();
    };

    void restart(int64_t row);
    void activate(const Edge& e, int64_t row);
    // The columns [lo, hi) cairo keeps for a band: the polygon's extent as cairo computes it for
    // that band, rounded out.
    void columnRange(int x0, int y0, int w, int h, int64_t& lo, int64_t& hi) const;

    FillRule m_rule = FillRule::NonZero;
    bool m_exact = true;
    bool m_cut = false; // made by cutTo(): the extent comes from the edges, never the points
    bool m_rectilinear = true;
    int32_t m_minX = 0, m_minY = 0, m_maxX = 0, m_maxY = 0; // extent of all points, fixed point
    int32_t m_edgeMinX = 0, m_edgeMaxX = 0; // extent of the ends of the edges across
    std::vector<Edge> m_edges;     // sorted by first row
    size_t m_next = 0;             // the next edge to become active
    int64_t m_row = 0;             // the row the active list is for
    ActiveEdges m_active;          // the edges crossing the current row
    std::vector<int64_t> m_cells;  // per column of the row being filled: landings, winding change
    std::vector<int64_t> m_cross;  // a row's crossings: column * 2 + (1 when downwards)
    std::vector<Span> m_batch;     // stretches found and not handed over yet
    std::vector<int32_t> m_fx, m_fy; // a polyline's points in fixed point, while edges are made
    uint64_t m_crossings = 0;
};

} // namespace qx::raster
