#pragma once
// HP-GL/2 vector graphics inside a PCL 5 job.
//
// The PCL 5 interpreter owns one Interpreter for the whole job and hands it the bytes that follow
// ESC%#B. The Interpreter keeps its state (pen, scaling, line attributes, polygon buffer, label
// settings) across switches between the two languages, as a printer does.
//
// Use from the PCL 5 interpreter:
//
//   hpgl2::Interpreter gl(device, diagnostics, fonts, &host);   // once a job; host: see Host
//   gl.setPictureFrame(frame);          // at job start, and after ESC*c#X/#Y/#K/#L/0T and page
//                                       // size / orientation / margin changes (see PictureFrame)
//   // ESC%#B with # = 0: keep the HP-GL/2 pen position; # = 1: the pen goes to the PCL cursor
//   gl.enterMode(hash == 1 ? std::optional<Point>(cursorInPageSpace) : std::nullopt);
//   size_t used = gl.run(data + pos, size - pos);   // stops AT an ESC byte outside a label,
//                                                   // or at the end
//   // PCL parses the escape sequence found at data + pos + used itself:
//   //   ESC%#A  back to PCL (# = 1: the PCL cursor moves to gl.penPosition());
//   //   ESC E   reset: gl.reset() after PCL's own reset; UEL: the job ends;
//   //   any other escape sequence is ignored and gl.run() is called again after it.
//   gl.reset();                         // ESC E (and the start of a job)
//
// Coordinates: HP-GL/2 draws in plotter units (1/1016 inch) with the origin at the lower-left
// corner of the picture frame and y up; everything reaches the Device in page space (points,
// top-left origin, y down). Every drawing is clipped to the picture frame (and to the input
// window of IW).
//
// Pens are drawn a whole number of device dots wide, the thinnest one dot. IN sets up the
// eight-pen palette of a colour printer. A label runs to its terminator and nothing else ends
// it (ESC included: with TD1 every code is text); it is drawn as it comes, so its length costs
// no memory. The polygon buffer holds 500,000 points, as a printer's fills up: the points
// beyond are dropped with a warning. Parameters are read in pieces, so one instruction of
// millions of points needs one piece of memory.
//
// Instructions drawn: IN DF SP PU PD PA PR PE PW WU LA LT UL SC IP IR RO IW CI AA AR AT RT BZ BR
// EA ER RA RR EW WG PM EP FP FT RF AC TR SV MC NP PC CR CT LB DT SD AD SS SA SI SR DI DR LO CP
// ES SM TD. Accepted without effect: BP CO MG WD BL PS PG RP PP CF DV LM QL VS FS IV NR AF AH PB
// SB EC FR and the O* output instructions. Anything else is skipped with one warning a mnemonic.

#include "render/device.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qx {
class Diagnostics;
class FontLibrary;
} // namespace qx

namespace qx::hpgl2 {

// The PCL picture frame, in page space.
//
// Frame space is the frame as PCL sees it: points, origin at the frame's anchor (its top-left
// corner in the print direction of the current orientation), x right, y down. frameToPage maps
// it to page space, and so carries the anchor and the orientation. With PCL's own logical-page
// transform L (PCL units to page points) and the anchor (ax, ay) in PCL units:
//     frameToPage = L * Matrix::translate(ax, ay) * Matrix::scale(unitsPerPoint, unitsPerPoint)
//
// Defaults when the job sets nothing: the width of the logical page by the default text length
// (page length less the top and bottom margins), anchored at the left edge of the logical page
// and the top margin; the plot size equals the frame size.
struct PictureFrame {
    Matrix frameToPage;
    double width = 612;     // ESC*c#X, in points (decipoints / 10)
    double height = 792;    // ESC*c#Y, in points
    double plotWidth = 0;   // ESC*c#K, in points (inches * 72); 0 = the frame width
    double plotHeight = 0;  // ESC*c#L, in points; 0 = the frame height
};

// What HP-GL/2 needs from the PCL interpreter around it.
class Host {
public:
    virtual ~Host() = default;
    // Called before anything is drawn: PCL begins its page lazily.
    virtual void ensurePage() = 0;
    // PCL's current raster operation and source transparency (and its clip, if any). HP-GL/2
    // adds the picture frame clip and its own pattern transparency (TR).
    virtual RenderState renderState() const { return {}; }
    // The PCL paint for fill types 21 (PCL cross-hatch pattern, id 1 to 6) and 22 (PCL
    // user-defined pattern by id); nullopt: drawn solid in the pen colour.
    virtual std::optional<Paint> pclPattern(int fillType, int id) const {
        (void)fillType;
        (void)id;
        return std::nullopt;
    }
};

// One item of polyline-encoded data (PE).
struct EncodedItem {
    enum class Kind : uint8_t { Pen, Point };
    Kind kind = Kind::Point;
    int pen = 0;            // Pen: the pen selected
    double x = 0, y = 0;    // Point: coordinates in current units (fraction bits applied)
    bool penUp = false;     // Point: a move with the pen up ('<')
    bool absolute = false;  // Point: absolute coordinates ('=')
};

// Decodes polyline-encoded data from data[pos] up to the ';' that ends it (consumed), an ESC
// (not consumed) or the end; pos is left after what was read. Base 64 (eight-bit) unless the
// data selects seven-bit mode ('7', base 32).
std::vector<EncodedItem> decodePolylineEncoded(const uint8_t* data, size_t size, size_t& pos);

class Interpreter {
public:
    // fonts may be null (labels are then skipped with one warning); host may be null (nothing
    // begins pages: tests with a device that takes drawing calls without beginPage).
    Interpreter(Device& device, Diagnostics& diag, const FontLibrary* fonts, Host* host);
    ~Interpreter();
    Interpreter(const Interpreter&) = delete;
    Interpreter& operator=(const Interpreter&) = delete;

    // A new picture frame or plot size. As the PCL picture frame commands do, it sets P1/P2 to
    // the frame's corners, drops the input window, empties the polygon buffer and puts the pen
    // on P1 (the lower-left corner). The same frame again changes nothing; the same frame with
    // another plot size is setPlotSize().
    void setPictureFrame(const PictureFrame& frame);
    const PictureFrame& pictureFrame() const { return m_frame; }
    // ESC*c#K / #L: only the scaling of plotter units onto the frame changes (IN or IP then
    // place P1/P2 on the frame's corners). Points; 0 = the frame's size.
    void setPlotSize(double widthPt, double heightPt);

    // The state after a printer reset (ESC E): what IN sets, pens 0 white and 1 black, the
    // pen at the frame's lower-left corner. Keeps the picture frame.
    void reset();

    // ESC%#B: HP-GL/2 starts. penAtPage: the PCL cursor in page space for ESC%1B; nullopt for
    // ESC%0B (the pen stays where HP-GL/2 left it).
    void enterMode(std::optional<Point> penAtPage = std::nullopt);

    // Interprets instructions from data until an ESC byte between instructions or the end;
    // returns the offset of the ESC (or size). Everything drawn so far has reached the device
    // when it returns.
    size_t run(const uint8_t* data, size_t size);

    // The pen position in page space (for ESC%1A, which moves the PCL cursor there).
    Point penPosition() const;

    // The pen colours. PCL may share its palette here (pen n = palette entry n); PC and NP change
    // them. Defaults: pen 0 white, pen 1 black.
    void setPens(std::vector<Rgb> pens);
    const std::vector<Rgb>& pens() const { return m_pens; }

private:
    struct Subpoly {
        std::vector<Point> pts; // rotated plotter units
        bool closed = false;    // closed with the pen down: EP draws the closing side
        bool edged = false;     // it has pen-down segments
    };

    struct RasterFill {
        int width = 0, height = 0;
        std::vector<int> pens; // row-major, top row first
    };

    struct Font {
        int symbolSet = 277;
        bool proportional = false;
        double pitch = 9;
        double height = 11.5;
        int style = 0;
        int weight = 0;
        int typeface = 48;
    };

    // Instructions
    void execute(char a, char b, const std::vector<double>& p);
    bool executeLabelInstruction(int code, const std::vector<double>& p);
    void warnOnce(const std::string& message);

    // Geometry
    void defaults(bool full);
    void defaultP1P2();
    void updateTransforms();
    Point userToPlu(Point u) const;
    Point userDeltaToPlu(Point u) const;
    Point pluToPage(Point p) const;
    double pluScaleToPage() const;
    double diagonalPlu() const;

    // Pen moves
    void moveTo(Point plu);
    bool polygonHasRoom(size_t n);
    void plotPairs(const std::vector<double>& p, bool relative);
    void arcTo(Point centre, double sweepDeg, double chordDeg);
    void threePointArc(Point mid, Point end, double chordDeg);
    std::vector<Point> arcPoints(Point centre, double radius, double startRad, double sweepRad,
                                 double chordDeg) const;
    double chordAngle(const std::vector<double>& p, size_t index) const;

    // Drawing
    void flush();
    void strokePlu(const std::vector<std::vector<Point>>& lines, const std::vector<bool>& closed);
    void fillPlu(const std::vector<std::vector<Point>>& polys, bool evenOdd);
    void edgeOrFill(const std::vector<Point>& poly, bool fill);
    StrokeStyle strokeStyle() const;
    double devicePixel() const;
    Paint penPaint() const;
    Paint linePaint() const;
    RenderState renderState(bool forFill) const;
    std::shared_ptr<const ClipRegion> clipRegion() const;
    void ensurePage();

    // Labels
    void label(const uint8_t* text, size_t size, bool terminated);
    void labelLine(const std::u32string& line, Point start);
    void drawSymbol();
    Point labelDirection() const;
    double lineFeedPlu() const;
    double charWidthPlu() const;
    double charHeightPlu() const;
    int selectFont() const;

    Device& m_dev;
    Diagnostics& m_diag;
    const FontLibrary* m_fonts;
    Host* m_host;

    PictureFrame m_frame;
    std::set<std::string> m_warned;

    // Coordinate system
    int m_rotation = 0;               // RO: 0, 90, 180, 270
    Point m_p1, m_p2;                 // plotter units, rotated system
    bool m_scaled = false;            // SC
    std::vector<double> m_scale;      // SC parameters
    Matrix m_userToPlu;               // user units to rotated plotter units
    Matrix m_pluToPage;               // rotated plotter units to page space
    std::optional<std::array<Point, 2>> m_window; // IW corners in plotter units
    mutable std::shared_ptr<const ClipRegion> m_clip;

    // Pen
    Point m_pen;                      // plotter units, rotated system
    bool m_penDown = false;
    bool m_relative = false;          // PR
    int m_selectedPen = 1;
    std::vector<Rgb> m_pens;
    std::vector<double> m_penWidths;  // per pen, in mm or percent (m_relativeWidths)
    bool m_relativeWidths = false;    // WU1
    StrokeStyle::Cap m_cap = StrokeStyle::Cap::Butt;
    StrokeStyle::Join m_join = StrokeStyle::Join::Miter;
    double m_miterLimit = 5;
    int m_lineType = 0;               // 0 = solid (LT without parameters)
    bool m_lineTypeSet = false;
    double m_patternLength = 4;       // percent of the P1-P2 diagonal, or mm
    bool m_patternAbsolute = false;
    std::map<int, std::vector<double>> m_userLineTypes; // UL
    double m_chordTolerance = 5;

    // Fill
    int m_fillType = 1;
    double m_fillOption1 = 0, m_fillOption2 = 0;
    std::map<int, RasterFill> m_rasterFills; // RF
    Point m_anchor;                   // AC: where hatching and raster fills start, plotter units
    bool m_transparent = true;        // TR
    int m_screenType = 0;             // SV: 0 solid, 1 shading
    double m_screenLevel = 100;       // SV shading level in percent
    int m_mergeRop = -1;              // MC: the raster operation; -1 = PCL's
    std::array<double, 6> m_colourRange{0, 255, 0, 255, 0, 255}; // CR: black and white of r, g, b

    // The stroke being gathered while the pen is down (page space).
    Path m_stroke;
    bool m_strokeHasSegments = false;

    // Polygon mode
    bool m_polygonMode = false;
    std::vector<Subpoly> m_polygon;
    size_t m_polygonPoints = 0;       // points in the buffer, at most kMaxPolygonPoints
    bool m_polyNewSub = true;

    // Labels
    Font m_standard, m_alternate;
    bool m_alternateSelected = false;
    double m_charWidthCm = 0, m_charHeightCm = 0; // SI; 0 = from the font
    double m_relWidthPct = 0, m_relHeightPct = 0; // SR; 0 = not set
    bool m_relativeSize = false;
    Point m_direction{1, 0};          // DI/DR run, rise
    bool m_directionRelative = false;
    Point m_extraSpace;               // ES: extra cells between characters, extra lines
    int m_labelOrigin = 1;
    uint8_t m_terminator = 3;
    bool m_terminatorPrinted = false;
    bool m_transparentData = false;   // TD1: control codes in labels are printed
    Point m_labelStart;               // carriage return point, plotter units
    uint8_t m_symbol = 0;             // SM: the character marking each point; 0 = none
};

} // namespace qx::hpgl2
