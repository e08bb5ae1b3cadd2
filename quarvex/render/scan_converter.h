#pragma once
// Filling polygons of many edges without anti-aliasing: an active-edge scan line converter.
//
// The edges are sorted once by their first row; each row then holds only the edges that cross
// it. Each crossing adds its direction to the winding change at the pixel where it lands, and a
// running sum along the row gives every pixel's winding: no sorting of crossings, whatever the
// self-intersections. The work is O(n log n) for the n edges plus, for every row, its crossings
// and its width.
//
// A pixel is inside when its centre is inside the polygon by the fill rule.

#include "render/device.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::raster {

class ScanConverter {
public:
    // polylines: closed polygons in device pixels (the last point joins the first).
    ScanConverter(const std::vector<std::vector<Point>>& polylines, FillRule rule);

    // Marks the covered pixels of the band [x0, x0 + w) x [y0, y0 + h) with 0xFF; data[0] is
    // pixel (x0, y0), rows stride bytes apart. Bands may come in any order; rows are fastest in
    // increasing order.
    void fill(uint8_t* data, int stride, int x0, int y0, int w, int h);

    size_t edgeCount() const { return m_edges.size(); }
    // Edge crossings computed so far: the work of the rows, for tests that bound it.
    uint64_t crossings() const { return m_crossings; }

private:
    struct Edge {
        double x;      // x at the centre of the first row (active edges: of the current row)
        double dxdy;   // x change per row
        int64_t first; // first row whose centre the edge crosses
        int64_t end;   // the row after the last
        int dir;       // +1 downwards, -1 upwards
    };

    void restart(int64_t row);
    void activate(const Edge& e, int64_t row);

    FillRule m_rule;
    std::vector<Edge> m_edges;       // sorted by first row
    size_t m_next = 0;               // the next edge to become active
    int64_t m_row = 0;               // the row the active list is for
    std::vector<Edge> m_active;      // the edges crossing the current row
    std::vector<int32_t> m_delta;    // winding changes along the row being filled
    uint64_t m_crossings = 0;
};

} // namespace qx::raster
