#pragma once
// The PCL XL interpreter: executes the operators the stream reader delivers, keeping the
// session, page and graphics state, and draws through the job's Device.

#include "common/job.h"
#include "pclxl/stream.h"
#include "render/device.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qx::pclxl {

struct DownloadedFont;

class Interpreter {
public:
    explicit Interpreter(JobContext& ctx);
    ~Interpreter();

    // Interprets a stream that starts with its header; returns the bytes used.
    size_t run(const uint8_t* data, size_t size);

    int pagesEjected() const { return m_pagesEjected; }

private:
    struct Pattern {
        std::shared_ptr<PatternTile> tile; // pixels; tileToPage is set when selected
        double destW = 0, destH = 0;       // size of one tile in user units
        int persistence = 0;
        std::shared_ptr<const PatternTile> lastSelected; // reused while its placement is the same
    };
    struct ColorState {
        uint8_t space = 1; // eGray
        std::vector<Rgb> palette;
    };
    struct GState {
        Matrix ctm;
        ColorState color;
        Paint brush = Paint::solid(Rgb::black());
        Paint pen = Paint::solid(Rgb::black());
        StrokeStyle stroke;
        double penWidthUser = 1;
        std::vector<double> dashUser;
        double dashOffsetUser = 0;
        FillRule fillRule = FillRule::NonZero;
        FillRule clipRule = FillRule::NonZero;
        RenderState rs;
        Point cursor; // page space
        // Text.
        std::string fontName;
        double charSize = 0;
        int symbolSet = 0;
        double charScaleX = 1, charScaleY = 1;
        double charShearX = 0, charShearY = 0;
        double charAngle = 0;
        double charBold = 0;
        bool verticalWriting = false;
        int residentIndex = -1; // chosen by a PCL font selection instead of the name
    };
    struct ImageState {
        bool active = false;
        bool pattern = false;
        int mapping = 0, depth = 2;
        int width = 0, height = 0;
        double destW = 0, destH = 0;
        Matrix imageToPage; // image pixel space to page space
        std::vector<uint8_t> seed;
        int patternId = 0;
        int persistence = 0;
        std::shared_ptr<PatternTile> tile;
        ColorState color;
        int rowsSeen = 0;
        // Rows read but not drawn yet: drivers send an image a row or a few at a time, and
        // the device draws better (and faster) from longer strips. The buffer lives in
        // m_stripRows, which keeps its capacity from strip to strip and image to image.
        size_t pendingRowBytes = 0;
        int pendingStart = 0;
        int pendingCount = 0;
    };

    void execute(const Operator& op, int depth);
    void requirePage(const Operator& op);

    // Session and page.
    void beginSession(const Operator& op);
    void beginPage(const Operator& op);
    void endPage(bool print = true);
    void resetGraphics();
    double userToPageScale() const;
    void checkCtm() const;

    // Colour.
    void setColorSpace(const Operator& op);
    Paint paintFrom(const Operator& op, bool& isNull);
    Rgb colorFromSpace(const Value& v, uint8_t space, int depthBits = 8) const;
    Rgb grayColor(const Value& v) const;

    // Paths and painting.
    void addPoints(const Operator& op, bool relative, bool bezier);
    void addArcShape(const Operator& op, int kind); // 0 arc, 1 chord, 2 pie, 3 ellipse
    void addRoundRect(const Operator& op);
    void paintPath();
    void clipToPath(const Path& pagePath, FillRule rule, bool exterior, bool replace);
    StrokeStyle currentStroke() const;

    // Images and patterns.
    void beginImage(const Operator& op, bool pattern);
    void readImage(const Operator& op);
    void endImage();
    // Takes decoded rows of the current image: gathers them into strips, or fills the pattern.
    void deliverRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count);
    void flushImageRows();
    void drawRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count);
    bool drawnReduced(const Matrix& toPage) const;
    void selectPattern(int id, const Operator& op, Paint& into);

    // Scan lines.
    void scanLineRel(const Operator& op);

    // Fonts and text.
    void text(const Operator& op, bool asPath);
    void selectPclFont(const std::string& selection);
    void endFontHeader();
    void readChar(const Operator& op);

    void drew() { m_pageMarked = true; }
    Point userToPage(double x, double y) const { return m_gs.ctm.apply({x, y}); }
    Point userVector(double x, double y) const { return m_gs.ctm.applyVector({x, y}); }
    std::vector<double> numbers(const Value& v) const;

    JobContext& m_ctx;
    Device& m_dev;

    // Session.
    bool m_inSession = false;
    double m_unitsX = 300, m_unitsY = 300; // user units per inch
    bool m_unitsPerInch = true;
    double m_declaredX = 0, m_declaredY = 0;

    // Page.
    bool m_inPage = false;
    bool m_pageMarked = false;
    PageSpec m_page;
    Matrix m_pageCtm;
    int m_pagesEjected = 0;

    GState m_gs;
    std::vector<GState> m_stack;
    // The current path, in page space. It is not part of the saved state, so that a deep stack
    // of saved states never holds copies of a long path.
    Path m_path;
    Point m_subpathStart;
    bool m_pendingMove = false; // the cursor moved since the last segment

    ImageState m_image;
    // The rows of the image strip being gathered, and the picture or mask a strip is drawn
    // as: kept between strips so that a page of images costs no allocation a strip.
    std::vector<uint8_t> m_stripRows;
    Image m_stripImage;
    Mask m_stripMask;
    std::map<int, Pattern> m_patterns;

    // Fonts being downloaded and downloaded.
    std::map<std::string, std::shared_ptr<DownloadedFont>> m_fonts;
    std::string m_fontHeaderName;
    std::vector<uint8_t> m_fontHeader;
    bool m_inFontHeader = false;
    std::string m_charFontName;
    bool m_inChar = false;
    bool m_warnedNoFonts = false;
    bool m_streamLittle = true; // byte order of embedded numbers

    // User-defined streams.
    std::map<std::string, std::shared_ptr<const std::vector<uint8_t>>> m_streams;
    std::string m_streamName;
    std::vector<uint8_t> m_streamData;
    bool m_inStream = false;
    long m_streamOperators = 0;

    std::vector<std::string> m_warnedOnce;
    void warnOnce(const std::string& message);
};

} // namespace qx::pclxl
