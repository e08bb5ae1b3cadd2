#pragma once
// The PCL 5 interpreter: acts on the commands the parser splits the job into and describes the
// pages through the job's Device.
//
// Internal lengths are in 1/7200 inch ("units": a decipoint is 10, a 300 dpi dot 24, a point
// 100). Positions are in the logical page: x from its left edge, y from its top edge, both in
// the print direction of the current orientation.

#include "common/job.h"
#include "fonts/font_library.h"
#include "pcl5/page_formats.h"
#include "hpgl2/hpgl2.h"
#include "pcl5/parser.h"
#include "pcl5/soft_fonts.h"
#include "render/device.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace qx::pcl5 {

class Interpreter {
public:
    explicit Interpreter(JobContext& ctx);
    ~Interpreter();

    // Interprets data; returns the bytes used (stops in front of a Universal Exit Language).
    size_t run(const uint8_t* data, size_t size);

private:
    // The commands of data, without finishing the page: the job itself, or a macro's body.
    // Returns the bytes used (it stops in front of a Universal Exit Language).
    size_t interpret(const uint8_t* data, size_t size);

    struct FontState {
        FontRequest request;
        int index = -1;       // selected resident font, -1 = to be selected
        double emPt = 12;     // the em size in points for the request; 0 = not worked out yet
        double hmi = 720;     // the font's own HMI in units
        bool fixed = true;
        bool setKnown = true; // the engine has a table for the request's symbol set
        int softId = -1;      // a downloaded font selected by ID, -1 = resident
    };

    struct RasterState {
        bool active = false;
        // The raster's own frame: rows run along its x, one below the other along its y. It is
        // the print direction's frame, or the physical sheet's in presentation mode 3.
        int direction = 0;         // quarter turns counterclockwise on the logical page
        double left = 0;           // x of the left raster margin in that frame
        double y = 0;              // y of the next row's top in that frame
        int width = 0;             // source pixels; 0 = to the page's edge
        int height = 0;            // rows; 0 = no limit
        int rowsDone = 0;
        int planeIndex = 0;
        double scaleX = 96, scaleY = 96; // units a source pixel covers (75 dpi unless scaled)
        // The strip being gathered, flushed as one mask / image.
        int stripWidth = 0;
        int stripRows = 0;
        double stripTop = 0;
        bool placed = false;             // the block's start has been put on the device grid
        std::vector<uint8_t> strip;      // 1-bit rows (mono) or RGB rows (colour)
        bool stripColour = false;
        std::vector<std::vector<uint8_t>> seeds; // one seed row per plane
    };

    // Commands: the loop hands each one to the part of the interpreter that acts on it.
    void handleText(const uint8_t* text, size_t length);
    // Display functions: prints data[from..size) as it is, escape sequences included, up to and
    // with ESC Z (which ends the mode) or up to a Universal Exit Language; returns where it stopped.
    size_t printDisplayFunctions(const uint8_t* data, size_t from, size_t size);
    void handleEscape2(uint8_t c);
    void handleParam(Parser& parser, const Command& cmd);
    void handleDataCommand(Parser& parser, const Command& cmd);
    // Whether a parameterised command is followed by as many bytes of data as its value says.
    static bool carriesData(const Command& cmd);
    void handleFontCommand(const Command& cmd, bool secondary); // ESC( and ESC)
    void pageCommand(const Command& cmd);           // ESC&l: page size, orientation, margins, spacing
    void cursorCommand(const Command& cmd);         // ESC&a, ESC*p, ESC&f#S, ESC&u#D
    void textCommand(const Command& cmd);           // ESC&k, ESC&s#C, ESC&d, ESC&c#T
    void softFontCommand(const Command& cmd);       // ESC*c#D, #E, #F
    void rectangleCommand(const Command& cmd);      // ESC*c: rectangle size and fill, pattern ID
    void patternCommand(const Command& cmd);        // ESC*v#N, #O, #T and ESC*l#O
    void defineUserPattern(std::span<const uint8_t> data); // ESC*c#W
    void colourCommand(const Command& cmd);         // ESC*v#A, #B, #C, #I, #S
    void rasterCommand(Parser& parser, const Command& cmd); // ESC*t, ESC*r, ESC*b
    void pictureFrameCommand(const Command& cmd);   // ESC*c#X, #Y, #T, #K, #L
    void enterHpgl(int mode);
    void leaveHpgl(int mode);
    hpgl2::PictureFrame pictureFrame() const;
    void updatePictureFrame();

    // What the HP-GL/2 interpreter asks of PCL.
    class GlHost : public hpgl2::Host {
    public:
        explicit GlHost(Interpreter& pcl) : m_pcl(pcl) {}
        void ensurePage() override { m_pcl.ensurePage(); }
        RenderState renderState() const override { return m_pcl.renderState(); }
        std::optional<Paint> pclPattern(int fillType, int id) const override;

    private:
        Interpreter& m_pcl;
    };

    // Page setup
    void reset();
    void applyPageSetup(const PaperSize& paper, int orientation);
    void defaultTextArea();
    void setPaper(int code);
    void setCustomPaperDimension(char which, double decipoints);
    void setOrientation(int orientation);
    double pageLength() const { return m_logicalHeight; }
    Matrix logicalToPage() const;
    // The left and top offset registration as a shift of the oriented sheet, in points.
    Point registrationShift() const;
    // The print direction's frame (cursor, text and rectangles) to the logical page.
    Matrix frameToLogical() const { return quarterTurnFrame(m_direction); }
    // A frame turned quarterTurns counterclockwise on the logical page, to the logical page.
    Matrix quarterTurnFrame(int quarterTurns) const;
    Matrix textToPage() const { return logicalToPage() * frameToLogical(); }
    double frameWidth() const { return (m_direction & 1) ? m_logicalHeight : m_logicalWidth; }
    double frameHeight() const { return (m_direction & 1) ? m_logicalWidth : m_logicalHeight; }
    void setPrintDirection(int quarterTurns);

    // Page lifetime
    void ensurePage();
    void ejectPage();
    // Ends the page being drawn (underline, overlay, then the device), if one is open.
    void closePage();

    // Cursor and text
    void carriageReturn();
    void lineFeed();
    void formFeed();
    void printCode(uint32_t code);
    double firstBaseline() const;
    FontState& currentFont() { return m_secondaryActive ? m_secondary : m_primary; }
    void selectFont(FontState& f);
    void fontChanged(FontState& f);
    // f's em size in points, worked out when first needed.
    double emOf(FontState& f);
    void drawUnderline();
    void startUnderline();

    // Graphics
    Paint currentPaint() const;
    RenderState renderState() const;
    Paint paintForPattern(int type, int id) const;
    void fillRect();
    // Puts a pattern's tile on the page: its pixels `unitsX` by `unitsY` large, from the pattern
    // reference point.
    std::shared_ptr<PatternTile> placeTile(std::shared_ptr<PatternTile> tile, double unitsX, double unitsY) const;
    // The output resolution in dots an inch (300 while no page is open).
    double deviceDpi() const;

    // Raster
    void startRaster(int mode);
    void endRaster();
    void rasterData(std::span<const uint8_t> data, bool lastPlane);
    void rasterRowDone();
    void rasterYOffset(int rows);
    void flushStrip();
    int rasterWidthPixels() const;
    Matrix rasterToLogical() const { return quarterTurnFrame(m_raster.direction); }
    double rasterFrameWidth() const { return (m_raster.direction & 1) ? m_logicalHeight : m_logicalWidth; }
    double rasterFrameHeight() const { return (m_raster.direction & 1) ? m_logicalWidth : m_logicalHeight; }
    // The cursor in the raster's frame.
    Point cursorInRaster() const;
    double rasterPixelUnits() const { return 7200.0 / m_rasterResolution; }
    int planes() const;
    void emitRow(const std::vector<std::vector<uint8_t>>& planes);

    // Colour
    void setSimpleColour(int mode);
    void configureImageData(std::span<const uint8_t> data);
    void defaultPalette();

    void warnOnce(const std::string& message);

    // Macros: stored command sequences, run on request or over every page.
    struct Macro {
        std::vector<uint8_t> body;
        bool permanent = false;
    };
    // What a called macro or an overlay may change and gets put back afterwards.
    struct Environment;
    template <class F> void environmentFields(Environment& e, F&& f);
    Environment saveEnvironment();
    void restoreEnvironment(Environment& e);
    void defaultEnvironment();
    void defineMacro(std::vector<uint8_t> body);
    void macroControl(int operation);
    void runMacro(int id, bool keepChanges);
    void runOverlay();
    // Called at a printer reset: temporary macros go, the overlay stops.
    void resetMacros();

    // Downloaded fonts
    void selectSoftFont(FontState& f, int id);
    // A downloaded font whose attributes answer the request exactly, -1 when none does.
    int matchSoftFont(const FontRequest& request) const;
    void fontControl(int operation);
    void defineFont(std::span<const uint8_t> data);
    void defineCharacter(std::span<const uint8_t> data);
    bool printSoftCode(FontState& f, uint32_t code);

    JobContext& m_ctx;
    Device& m_dev;
    const FontLibrary* m_fonts;

    // Page
    PaperSize m_paper;
    double m_customWidthPt = 0;     // ESC&f#I / ESC&f#J: the custom paper size (101), 0 = unset
    double m_customHeightPt = 0;
    int m_orientation = 0;
    int m_direction = 0;            // print direction in quarter turns counterclockwise
    bool m_pageOpen = false;
    double m_offsetX = 1800;        // logical page left edge from the sheet edge (oriented)
    double m_logicalWidth = 0;
    double m_logicalHeight = 0;
    double m_sheetWidth = 0;        // oriented sheet, units
    double m_sheetHeight = 0;
    double m_regLeft = 0;           // registration offsets
    double m_regTop = 0;
    int m_duplex = 0;               // ESC&l#S: 0 simplex, 1 long-edge, 2 short-edge binding
    bool m_backSide = false;        // the page being drawn goes on the back of a duplex sheet
    double m_unitsPerInch = 300;

    // Text area and cursor
    double m_x = 0, m_y = 0;
    double m_leftMargin = 0, m_rightMargin = 0, m_topMargin = 3600;
    int m_textLength = 60;
    double m_vmi = 1200;
    double m_hmi = 720;
    bool m_perfSkip = true;
    bool m_wrap = false;
    int m_lineTermination = 0;
    int m_textPath = 0;             // ESC&c#T: 0 horizontal, -1 vertical rotated
    std::vector<std::pair<double, double>> m_cursorStack;
    bool m_underline = false;
    double m_underlineStart = 0;
    double m_underlineY = 0;
    bool m_underlineFloating = false; // ESC&d3D: placed by the fonts printed, not 5 dots down
    double m_underlineDepth = 0;      // the deepest underline of those fonts, below the baseline
    double m_lastAdvance = 0;

    FontState m_primary;
    FontState m_secondary;
    bool m_secondaryActive = false;

    // Graphics state
    double m_rectWidth = 0, m_rectHeight = 0;
    int m_patternId = 0;
    int m_patternTypeForRect = 0;
    int m_currentPatternType = 0; // ESC*v#T: 0 solid black (foreground), 1 white, 2 shade, 3 hatch, 4 user
    int m_currentPatternId = 0;
    uint8_t m_rop = 252;
    bool m_sourceTransparent = true;
    bool m_patternTransparent = true;
    double m_patternRefX = 0, m_patternRefY = 0; // pattern reference point, logical page
    bool m_patternRotates = true;   // patterns turn with the print direction (ESC*p0R)
    struct UserPattern {
        std::shared_ptr<PatternTile> tile;
        double dpiX = 300, dpiY = 300; // the resolution the pattern was designed at
    };
    std::map<int, UserPattern> m_userPatterns;

    // Colour
    std::vector<Rgb> m_palette;
    int m_foreground = 1;  // palette index of the foreground colour, -1 = black
    Rgb m_foregroundRgb = Rgb::black();
    int m_pixelEncoding = 0; // 0 indexed by plane, 1 indexed by pixel, 2 direct by plane, 3 direct by pixel
    int m_bitsPerIndex = 1;
    bool m_colourSpaceCmy = false;
    int m_simpleColour = 0; // 0 = none (monochrome), 1, 3 (RGB), -3 (CMY), -4 (KCMY)
    std::array<double, 3> m_componentValues{0, 0, 0};

    // Raster
    RasterState m_raster;
    int m_rasterResolution = 75;
    int m_compression = 0;
    int m_presentation = 0; // raster presentation: 0 follows the print direction, 3 the physical sheet
    double m_destWidth = 0, m_destHeight = 0; // ESC*t#H/V, decipoints; 0 = none

    struct StoredFont {
        SoftFont font;
        bool permanent = false;
    };
    std::map<int, StoredFont> m_softFonts;
    size_t m_softFontBytes = 0;
    int m_fontId = 0;
    uint32_t m_charCode = 0;
    CharacterAssembler m_assembler;

    GlHost m_glHost{*this};
    std::unique_ptr<hpgl2::Interpreter> m_gl;   // made at the first ESC%#B of the job
    bool m_inHpgl = false;
    double m_frameWidth = 0, m_frameHeight = 0; // picture frame, units; 0 = the default
    double m_plotWidth = 0, m_plotHeight = 0;   // plot size, points; 0 = the frame's
    double m_frameAnchorX = 0, m_frameAnchorY = -1; // -1 = at the top margin

    std::map<int, Macro> m_macros;
    size_t m_macroWork = 0;      // bytes of macro bodies interpreted in this job
    size_t m_macroWorkBudget = 0; // and how many it may interpret
    int m_macroId = 0;
    int m_overlayId = -1;        // the macro run over every page, -1 = none
    int m_macroDepth = 0;        // macros running inside each other
    bool m_inOverlay = false;

    std::vector<std::string> m_warned;
    bool m_displayFunctions = false;
};

} // namespace qx::pcl5
