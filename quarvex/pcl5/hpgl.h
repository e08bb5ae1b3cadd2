#pragma once
// HP-GL/2 inside PCL 5: the vector language entered with ESC%#B. It draws lines, rectangles,
// circles, arcs, polygons and labels (in resident fonts) in plotter units (1/1016 inch) inside
// the picture frame; encoded polylines and wedges are skipped with a warning.

#include "fonts/font_library.h"
#include "render/device.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qx::pcl5 {

struct HpglFrame {
    // Plotter units (origin at the picture frame's lower left, y up) to page points.
    Matrix plotterToPage;
    double widthPlu = 0;  // the picture frame in plotter units
    double heightPlu = 0;
};

class Hpgl {
public:
    struct Hooks {
        std::function<void()> ensurePage;           // called before the first mark on a page
        std::function<void(const std::string&)> warn;
        std::function<RenderState()> renderState;
        const FontLibrary* fonts = nullptr;         // labels need them; without, they are skipped
    };

    Hpgl(Device& device, Hooks hooks);

    // Resets everything (IN), keeping the frame.
    void initialise();
    void setFrame(const HpglFrame& frame);
    const HpglFrame& frame() const { return m_frame; }

    // Pen position in plotter units, for ESC%1B / ESC%1A.
    Point penPosition() const { return m_pen; }
    void setPenPosition(Point p) { m_pen = p; }

    // Interprets from `pos` until an escape sequence that leaves HP-GL/2; returns the position of
    // that ESC (or size). Stroked lines are finished before returning.
    size_t run(const uint8_t* data, size_t pos, size_t size);

    // Plotter units (with the current rotation) to page points.
    Matrix plotterToPage() const;

private:
    enum class Units : uint8_t { Absolute, Relative };

    void command(char a, char b, const std::vector<double>& args);
    void moveTo(Point userPoint, bool relative);
    void plot(const std::vector<double>& args, bool relativeDefault);
    void flushPath();
    void rectangle(double x, double y, bool relative, bool fill);
    void circle(double radius);
    void arc(Point centre, double sweepDegrees);
    Point userToPlotter(Point p) const;
    Point plotterDelta(Point d) const;
    Paint penPaint() const;
    StrokeStyle penStyle() const;
    void mark();
    void label(const uint8_t* text, size_t length);
    void selectLabelFont();

    Device& m_dev;
    Hooks m_hooks;
    HpglFrame m_frame;

    Point m_pen{0, 0};          // plotter units
    bool m_penDown = false;
    bool m_relative = false;
    int m_pen_number = 1;
    std::vector<double> m_penWidthMm; // per pen
    bool m_widthRelative = false;
    int m_rotation = 0;
    // IP / SC
    Point m_p1{0, 0}, m_p2{0, 0};
    bool m_scaling = false;
    double m_scale[4] = {0, 1, 0, 1}; // xmin, xmax, ymin, ymax
    int m_lineType = 0; // 0 = solid
    double m_patternLength = 4; // percent of the P1-P2 diagonal
    Path m_path;                 // the polyline being drawn, page space
    bool m_polygonMode = false;
    Path m_polygon;              // the polygon buffer of PM, page space
    uint8_t m_labelTerminator = 0x03;
    bool m_warnedLabel = false;
    // Labels
    FontRequest m_labelRequest;
    int m_labelFont = -1;
    double m_charWidthPlu = 0, m_charHeightPlu = 0; // SI: 0 = from the font
    double m_direction = 0;                          // DI, radians
    Point m_labelStart{0, 0};
};

} // namespace qx::pcl5
