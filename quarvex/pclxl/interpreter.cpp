#include "pclxl/interpreter.h"

#include "common/diagnostics.h"
#include "fonts/font_library.h"
#include "pclxl/downloaded_font.h"
#include "pclxl/raster_codec.h"
#include "pclxl/text_render.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

namespace qx::pclxl {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kMaxGsDepth = 64;
// Operators run from user-defined streams; streams that call each other can multiply.
constexpr long kMaxStreamOperators = 5000000;
// A selected pattern is a copy of its tile; saved states may hold many of them.
constexpr size_t kMaxPatternPixels = size_t(1) << 20;
constexpr int kMaxStreamDepth = 4;
constexpr size_t kMaxClipEntries = 32;
constexpr int kMaxImageSide = 65535;
constexpr size_t kMaxStripBytes = size_t(8) << 20;

// A problem with one operator; reported with the operator's name and offset.
struct XlError {
    std::string what;
};

[[noreturn]] void failOp(const std::string& what) { throw XlError{what}; }

// Numbers from the stream may be anything a real32 holds; these convert without overflow.
int asInt(double v) {
    if (!(v == v))
        return 0;
    return int(std::clamp(v, -2147483648.0, 2147483647.0));
}
size_t asSize(double v) {
    if (!(v > 0))
        return 0;
    return v >= 9.0e15 ? size_t(9.0e15) : size_t(v);
}
uint8_t asUByte(double v) { return uint8_t(std::clamp(asInt(v), 0, 255)); }
uint16_t asUInt16(double v) { return uint16_t(std::clamp(asInt(v), 0, 65535)); }

const Value& need(const Operator& op, uint16_t id) {
    const Value* v = op.find(id);
    if (!v) {
        const char* n = attributeName(id);
        failOp(std::string("missing attribute ") + (n ? n : std::to_string(id).c_str()));
    }
    return *v;
}

double number(const Operator& op, uint16_t id, double fallback) {
    const Value* v = op.find(id);
    return v ? v->number() : fallback;
}

Point xy(const Value& v) {
    if (v.shape == Value::Shape::Xy || v.shape == Value::Shape::Box)
        return {v.v[0], v.v[1]};
    if (v.isArray() && v.size() >= 2)
        return {v.at(0), v.at(1)};
    return {v.number(), v.number()};
}

const Value& needXy(const Operator& op, uint16_t id) {
    const Value& v = need(op, id);
    if (v.shape != Value::Shape::Xy) {
        const char* n = attributeName(id);
        failOp(std::string("attribute ") + (n ? n : "?") + " is not an xy pair");
    }
    return v;
}

struct Box {
    double x1, y1, x2, y2;
};

Box needBox(const Operator& op, uint16_t id) {
    const Value& v = need(op, id);
    if (v.shape != Value::Shape::Box) {
        const char* n = attributeName(id);
        failOp(std::string("attribute ") + (n ? n : "?") + " is not a box");
    }
    Box b{v.v[0], v.v[1], v.v[2], v.v[3]};
    if (b.x1 > b.x2)
        std::swap(b.x1, b.x2);
    if (b.y1 > b.y2)
        std::swap(b.y1, b.y2);
    return b;
}

bool finite(Point p) { return std::isfinite(p.x) && std::isfinite(p.y); }

uint8_t clampByte(double v) {
    if (!(v > 0))
        return 0;
    if (v >= 255)
        return 255;
    return uint8_t(std::lround(v));
}

std::string normaliseMediaName(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == 0)
            break;
        if (std::isalnum(static_cast<unsigned char>(c)))
            out += char(std::toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

struct MediaEntry {
    int code;
    const char* names[4];
    double wPt, hPt;
};

constexpr double mm(double v) { return v * 72.0 / 25.4; }

const MediaEntry kMedia[] = {
    {0, {"LETTER", "LETTERPAPER", nullptr}, 612, 792},
    {1, {"LEGAL", "LEGALPAPER", nullptr}, 612, 1008},
    {2, {"A4", "A4PAPER", nullptr}, mm(210), mm(297)},
    {3, {"EXEC", "EXECUTIVE", "EXECPAPER"}, 522, 756},
    {4, {"LEDGER", "TABLOID", "LEDGERPAPER"}, 792, 1224},
    {5, {"A3", "A3PAPER", nullptr}, mm(297), mm(420)},
    {6, {"COM10", "COM10ENVELOPE", nullptr}, 297, 684},
    {7, {"MONARCH", "MONARCHENVELOPE", nullptr}, 279, 540},
    {8, {"C5", "C5ENVELOPE", nullptr}, mm(162), mm(229)},
    {9, {"DL", "DLENVELOPE", nullptr}, mm(110), mm(220)},
    {10, {"JB4", "JISB4", "B4"}, mm(257), mm(364)},
    {11, {"JB5", "JISB5", nullptr}, mm(182), mm(257)},
    {12, {"B5ENVELOPE", "B5ENV", nullptr}, mm(176), mm(250)},
    {13, {"B5", "B5PAPER", nullptr}, mm(176), mm(250)},
    {14, {"JPOSTCARD", "POSTCARD", "JPOST"}, mm(100), mm(148)},
    {15, {"JDOUBLEPOSTCARD", "DOUBLEPOSTCARD", "JPOSTD", "JDBLPOSTCARD"}, mm(200), mm(148)},
    {16, {"A5", "A5PAPER", nullptr}, mm(148), mm(210)},
    {17, {"A6", "A6PAPER", nullptr}, mm(105), mm(148)},
    {18, {"JB6", "JISB6", nullptr}, mm(128), mm(182)},
    {19, {"JIS8K", "8K", nullptr}, mm(260), mm(368)},
    {20, {"JIS16K", "16K", nullptr}, mm(184), mm(260)},
    {21, {"JISEXEC", nullptr, nullptr}, mm(216), mm(330)},
    // Named only (no enumeration value).
    {-1, {"STATEMENT", nullptr, nullptr}, 396, 612},
    {-1, {"FOLIO", nullptr, nullptr}, 612, 936},
};

const MediaEntry* mediaByName(const std::string& name) {
    const std::string n = normaliseMediaName(name);
    for (const MediaEntry& m : kMedia)
        for (const char* alias : m.names)
            if (alias && n == alias)
                return &m;
    return nullptr;
}

double measureToInch(int measure) {
    switch (measure) {
    case eMillimeter: return 25.4;
    case eTenthsOfAMillimeter: return 254.0;
    default: return 1.0;
    }
}

// Appends an elliptical arc, centre (cx, cy), radii (rx, ry), from angle a0 sweeping `sweep`
// radians (positive = towards +y), as Béziers in user space, transformed by m.
void appendArc(Path& path, const Matrix& m, double cx, double cy, double rx, double ry, double a0,
               double sweep, bool moveFirst) {
    const int segments = std::max(1, int(std::ceil(std::fabs(sweep) / (kPi / 2) - 1e-9)));
    const double step = sweep / segments;
    const double k = 4.0 / 3.0 * std::tan(step / 4);
    auto at = [&](double a) { return Point{cx + rx * std::cos(a), cy + ry * std::sin(a)}; };
    Point p0 = at(a0);
    if (moveFirst)
        path.moveTo(m.apply(p0));
    else
        path.lineTo(m.apply(p0));
    double a = a0;
    for (int i = 0; i < segments; ++i) {
        const double b = a + step;
        const Point p1{cx + rx * (std::cos(a) - k * std::sin(a)), cy + ry * (std::sin(a) + k * std::cos(a))};
        const Point p3 = at(b);
        const Point p2{cx + rx * (std::cos(b) + k * std::sin(b)), cy + ry * (std::sin(b) - k * std::cos(b))};
        path.curveTo(m.apply(p1), m.apply(p2), m.apply(p3));
        a = b;
    }
}

} // namespace

Interpreter::Interpreter(JobContext& ctx) : m_ctx(ctx), m_dev(ctx.device) {}

Interpreter::~Interpreter() = default;

void Interpreter::warnOnce(const std::string& message) {
    if (std::find(m_warnedOnce.begin(), m_warnedOnce.end(), message) != m_warnedOnce.end())
        return;
    m_warnedOnce.push_back(message);
    m_ctx.diag.warning("PCL XL: " + message);
}

size_t Interpreter::run(const uint8_t* data, size_t size) {
    // After a damaged spot nothing can be trusted up to the next job: the rest is used, up to a
    // Universal Exit Language sequence that hands over to the job loop.
    auto skipToNextJob = [&](size_t from) {
        static const char kUel[] = "\x1b%-12345X";
        for (size_t i = from; i + 9 <= size; ++i)
            if (std::memcmp(data + i, kUel, 9) == 0)
                return i;
        return size;
    };
    StreamReader reader(data, size);
    if (!reader.readHeader()) {
        m_ctx.diag.warning("PCL XL: " + reader.error());
        return skipToNextJob(0);
    }
    Operator op;
    bool failed = false;
    for (;;) {
        const StreamReader::Status st = reader.next(op);
        if (st == StreamReader::Status::End)
            break;
        if (st == StreamReader::Status::Error) {
            m_ctx.diag.warning("PCL XL: " + reader.error());
            failed = true;
            break;
        }
        m_streamLittle = reader.header().littleEndian;
        try {
            execute(op, 0);
        } catch (const XlError& e) {
            m_ctx.diag.warning("PCL XL: " + e.what + " in " + op.name() + " at byte " + std::to_string(op.offset));
            failed = true;
            break;
        }
    }
    // A page left open (truncated or damaged stream) is ejected when something was drawn on
    // it, so that what could be rendered is not lost: image rows read so far included.
    if (m_inPage)
        flushImageRows();
    if (m_inPage) {
        if (m_pageMarked)
            endPage();
        else
            m_inPage = false;
    }
    return failed ? skipToNextJob(reader.position()) : reader.position();
}

void Interpreter::requirePage(const Operator&) {
    if (!m_inPage)
        failOp("drawing operator outside a page");
}

std::vector<double> Interpreter::numbers(const Value& v) const {
    std::vector<double> out;
    for (size_t i = 0; i < v.size(); ++i)
        out.push_back(v.at(i));
    return out;
}

void Interpreter::checkCtm() const {
    const Matrix& m = m_gs.ctm;
    for (double v : {m.a, m.b, m.c, m.d, m.e, m.f})
        if (!std::isfinite(v) || std::fabs(v) > 1e9)
            failOp("page transform out of range");
}

double Interpreter::userToPageScale() const {
    const double det = m_gs.ctm.a * m_gs.ctm.d - m_gs.ctm.b * m_gs.ctm.c;
    return std::sqrt(std::fabs(det));
}

void Interpreter::execute(const Operator& op, int depth) {
    // Operators recorded into a user-defined stream are not executed now.
    if (m_inStream && op.tag != op::ReadStream && op.tag != op::EndStream)
        failOp("operator inside a stream definition");
    // Rows gathered from ReadImage are drawn before anything else happens.
    if (m_image.pendingCount > 0 && op.tag != op::ReadImage)
        flushImageRows();
    switch (op.tag) {
    // ---- Session ----
    case op::BeginSession: beginSession(op); break;
    case op::EndSession:
        if (m_inPage)
            endPage();
        m_inSession = false;
        // Everything downloaded lives as long as the session at most.
        m_patterns.clear();
        m_fonts.clear();
        m_streams.clear();
        break;
    case op::OpenDataSource:
        if (const Value* v = op.find(attr::DataOrg); v && v->number() > 1)
            failOp("unknown DataOrg " + std::to_string(asInt(v->number())));
        break;
    case op::CloseDataSource:
    case op::Comment:
    case op::EchoComment:
    case op::Query:
    case op::Diagnostic3:
    case op::VendorUnique:
    case op::SetColorTreatment:
    case op::SetHalftoneMethod:
    case op::SetColorTrapping:
    case op::SetAdaptiveHalftoning:
    case op::SetNeutralAxis:
    case op::SetGlobalAttributes:
    case op::ClearGlobalAttributes:
    case op::SetCharSubMode:
        break;
    case op::PassThrough:
        warnOnce("embedded PCL 5 passages (PassThrough) are skipped");
        break;
    case op::BeginUserDefinedLineCap:
    case op::EndUserDefinedLineCap:
        warnOnce("user-defined line caps are drawn as butt caps");
        break;
    case op::BeginPage: beginPage(op); break;
    case op::EndPage:
        if (!m_inPage)
            failOp("EndPage without BeginPage");
        // Zero copies print nothing; more than one still make one page of the output.
        endPage(number(op, attr::PageCopies, 1) >= 1);
        break;

    // ---- Graphics state ----
    case op::PushGS:
        if (m_stack.size() >= kMaxGsDepth)
            failOp("graphics state stack overflow");
        m_stack.push_back(m_gs);
        break;
    case op::PopGS:
        if (m_stack.empty())
            failOp("graphics state stack underflow");
        m_gs = std::move(m_stack.back());
        m_stack.pop_back();
        break;
    case op::SetDefaultGS: {
        const Point cursor = m_gs.cursor;
        resetGraphics();
        m_gs.cursor = cursor;
        break;
    }
    case op::SetPageDefaultCTM: m_gs.ctm = m_pageCtm; break;
    case op::SetPageOrigin: {
        const Point o = xy(needXy(op, attr::PageOrigin));
        m_gs.ctm = m_gs.ctm * Matrix::translate(o.x, o.y);
        checkCtm();
        break;
    }
    case op::SetPageRotation: {
        const double deg = need(op, attr::PageAngle).number();
        m_gs.ctm = m_gs.ctm * Matrix::rotate(deg * kPi / 180.0);
        checkCtm();
        break;
    }
    case op::SetPageScale: {
        Point s{1, 1};
        if (const Value* v = op.find(attr::PageScale)) {
            s = xy(*v);
        } else if (const Value* units = op.find(attr::UnitsPerMeasure)) {
            // Scale so that the given units replace the session's.
            const double inch = measureToInch(asInt(number(op, attr::Measure, eInch)));
            const Point u = xy(*units);
            if (u.x <= 0 || u.y <= 0)
                failOp("UnitsPerMeasure must be positive");
            s = {m_unitsX / (u.x * inch), m_unitsY / (u.y * inch)};
        } else {
            failOp("missing attribute PageScale");
        }
        if (!std::isfinite(s.x) || !std::isfinite(s.y) || s.x == 0 || s.y == 0)
            failOp("unusable PageScale");
        m_gs.ctm = m_gs.ctm * Matrix::scale(s.x, s.y);
        checkCtm();
        break;
    }
    case op::SetCursor: {
        const Point p = xy(needXy(op, attr::Point));
        m_gs.cursor = userToPage(p.x, p.y);
        if (!finite(m_gs.cursor))
            failOp("coordinates out of range");
        m_subpathStart = m_gs.cursor;
        m_pendingMove = true;
        break;
    }
    case op::SetCursorRel: {
        const Point d = xy(needXy(op, attr::Point));
        const Point v = userVector(d.x, d.y);
        m_gs.cursor = {m_gs.cursor.x + v.x, m_gs.cursor.y + v.y};
        if (!finite(m_gs.cursor))
            failOp("coordinates out of range");
        m_subpathStart = m_gs.cursor;
        m_pendingMove = true;
        break;
    }

    // ---- Colour and paint ----
    case op::SetColorSpace: setColorSpace(op); break;
    case op::SetBrushSource: {
        bool isNull = false;
        Paint p = paintFrom(op, isNull);
        if (const Value* id = op.find(attr::PatternSelectID))
            selectPattern(asInt(id->number()), op, p);
        m_gs.brush = isNull ? Paint::none() : p;
        break;
    }
    case op::SetPenSource: {
        bool isNull = false;
        Paint p = paintFrom(op, isNull);
        if (const Value* id = op.find(attr::PatternSelectID))
            selectPattern(asInt(id->number()), op, p);
        m_gs.pen = isNull ? Paint::none() : p;
        break;
    }
    case op::SetROP: m_gs.rs.rop3 = asUByte(need(op, attr::ROP3).number()); break;
    case op::SetSourceTxMode: m_gs.rs.sourceTransparent = need(op, attr::TxMode).number() == 1; break;
    case op::SetPaintTxMode: m_gs.rs.patternTransparent = need(op, attr::TxMode).number() == 1; break;
    case op::SetFillMode:
        m_gs.fillRule = need(op, attr::FillMode).number() == 1 ? FillRule::EvenOdd : FillRule::NonZero;
        break;
    case op::SetClipMode:
        m_gs.clipRule = need(op, attr::ClipMode).number() == 1 ? FillRule::EvenOdd : FillRule::NonZero;
        break;
    case op::SetPenWidth: {
        const double w = need(op, attr::PenWidth).number();
        if (!std::isfinite(w) || w < 0)
            failOp("negative PenWidth");
        m_gs.penWidthUser = w;
        break;
    }
    case op::SetLineCap: {
        const int c = asInt(need(op, attr::LineCapStyle).number());
        m_gs.stroke.cap = c == 1 ? StrokeStyle::Cap::Round : c == 2 ? StrokeStyle::Cap::Square : StrokeStyle::Cap::Butt;
        if (c == 3)
            warnOnce("triangle line caps are drawn as butt caps");
        break;
    }
    case op::SetLineJoin: {
        const int j = asInt(need(op, attr::LineJoinStyle).number());
        m_gs.stroke.join = j == 1 ? StrokeStyle::Join::Round : j == 2 || j == 3 ? StrokeStyle::Join::Bevel : StrokeStyle::Join::Miter;
        break;
    }
    case op::SetMiterLimit: {
        const double m = need(op, attr::MiterLength).number();
        m_gs.stroke.miterLimit = m <= 0 ? 10 : std::max(1.0, m);
        break;
    }
    case op::SetLineDash: {
        if (op.find(attr::SolidLine)) {
            m_gs.dashUser.clear();
            m_gs.dashOffsetUser = 0;
            break;
        }
        const Value& v = need(op, attr::LineDashStyle);
        if (!v.isArray() || v.size() > 20)
            failOp("LineDashStyle must be an array of at most 20 lengths");
        std::vector<double> d = numbers(v);
        double total = 0;
        for (double x : d) {
            if (!(x >= 0))
                failOp("negative dash length");
            total += x;
        }
        m_gs.dashUser = total > 0 ? d : std::vector<double>{};
        m_gs.dashOffsetUser = number(op, attr::DashOffset, 0);
        break;
    }

    // ---- Paths ----
    case op::NewPath:
        m_path.clear();
        m_pendingMove = false;
        break;
    case op::CloseSubPath:
        if (!m_path.empty()) {
            m_path.close();
            m_gs.cursor = m_subpathStart;
        }
        break;
    case op::LinePath: addPoints(op, false, false); break;
    case op::LineRelPath: addPoints(op, true, false); break;
    case op::BezierPath: addPoints(op, false, true); break;
    case op::BezierRelPath: addPoints(op, true, true); break;
    case op::ArcPath: addArcShape(op, 0); break;
    case op::ChordPath: addArcShape(op, 1); break;
    case op::PiePath: addArcShape(op, 2); break;
    case op::EllipsePath: addArcShape(op, 3); break;
    case op::RectanglePath: addArcShape(op, 4); break;
    case op::RoundRectanglePath: addRoundRect(op); break;
    case op::Chord:
    case op::Pie:
    case op::Ellipse:
    case op::Rectangle:
    case op::RoundRectangle: {
        requirePage(op);
        m_path.clear();
        if (op.tag == op::RoundRectangle)
            addRoundRect(op);
        else
            addArcShape(op, op.tag == op::Chord ? 1 : op.tag == op::Pie ? 2 : op.tag == op::Ellipse ? 3 : 4);
        paintPath();
        break;
    }
    case op::PaintPath:
        requirePage(op);
        paintPath();
        break;

    // ---- Clipping ----
    case op::SetClipToPage: m_gs.rs.clip.reset(); break;
    case op::SetClipRectangle: {
        const Box b = needBox(op, attr::BoundingBox);
        Path p;
        p.moveTo(userToPage(b.x1, b.y1));
        p.lineTo(userToPage(b.x2, b.y1));
        p.lineTo(userToPage(b.x2, b.y2));
        p.lineTo(userToPage(b.x1, b.y2));
        p.close();
        clipToPath(p, FillRule::NonZero, number(op, attr::ClipRegion, 0) == 1, false);
        break;
    }
    case op::SetClipReplace:
        clipToPath(m_path, m_gs.clipRule, number(op, attr::ClipRegion, 0) == 1, true);
        break;
    case op::SetClipIntersect:
        clipToPath(m_path, m_gs.clipRule, number(op, attr::ClipRegion, 0) == 1, false);
        break;
    case op::SetPathToClip:
        m_path.clear();
        if (m_gs.rs.clip && m_gs.rs.clip->entries.size() == 1)
            m_path = m_gs.rs.clip->entries.front().path;
        else {
            Path p;
            p.addRect(0, 0, m_page.widthPt, m_page.heightPt);
            m_path = p;
            if (m_gs.rs.clip)
                warnOnce("SetPathToClip with a combined clip uses the page");
        }
        break;

    // ---- Images, patterns, scan lines ----
    case op::BeginImage:
        requirePage(op);
        beginImage(op, false);
        break;
    case op::ReadImage:
        if (!m_image.active || m_image.pattern)
            failOp("ReadImage without BeginImage");
        readImage(op);
        break;
    case op::EndImage:
        if (!m_image.active || m_image.pattern)
            failOp("EndImage without BeginImage");
        endImage();
        break;
    case op::BeginRastPattern: beginImage(op, true); break;
    case op::ReadRastPattern:
        if (!m_image.active || !m_image.pattern)
            failOp("ReadRastPattern without BeginRastPattern");
        readImage(op);
        break;
    case op::EndRastPattern:
        if (!m_image.active || !m_image.pattern)
            failOp("EndRastPattern without BeginRastPattern");
        endImage();
        break;
    case op::BeginScan: requirePage(op); break;
    case op::ScanLineRel:
        requirePage(op);
        scanLineRel(op);
        break;
    case op::EndScan: break;

    // ---- Fonts and text ----
    case op::BeginFontHeader: {
        if (number(op, attr::FontFormat, 0) != 0)
            failOp("unknown FontFormat");
        m_fontHeaderName = need(op, attr::FontName).text();
        m_fontHeader.clear();
        m_inFontHeader = true;
        break;
    }
    case op::ReadFontHeader: {
        if (!m_inFontHeader)
            failOp("ReadFontHeader without BeginFontHeader");
        const double len = need(op, attr::FontHeaderLength).number();
        if (!op.hasData || asSize(len) != op.dataSize)
            failOp("font header data does not match FontHeaderLength");
        m_fontHeader.insert(m_fontHeader.end(), op.data, op.data + op.dataSize);
        break;
    }
    case op::EndFontHeader:
        if (!m_inFontHeader)
            failOp("EndFontHeader without BeginFontHeader");
        endFontHeader();
        break;
    case op::BeginChar: {
        m_charFontName = need(op, attr::FontName).text();
        if (!m_fonts.count(m_charFontName))
            failOp("BeginChar for a font that was not downloaded");
        m_inChar = true;
        break;
    }
    case op::ReadChar:
        if (!m_inChar)
            failOp("ReadChar without BeginChar");
        readChar(op);
        break;
    case op::EndChar:
        if (!m_inChar)
            failOp("EndChar without BeginChar");
        m_inChar = false;
        break;
    case op::RemoveFont: m_fonts.erase(need(op, attr::FontName).text()); break;
    case op::SetFont: {
        if (const Value* pcl = op.find(attr::PCLSelectFont)) {
            selectPclFont(pcl->text());
            break;
        }
        m_gs.residentIndex = -1;
        const Value& name = need(op, attr::FontName);
        const double size = need(op, attr::CharSize).number();
        if (!std::isfinite(size) || std::fabs(size) > 1e7)
            failOp("unusable CharSize");
        m_gs.fontName = name.text();
        m_gs.charSize = size;
        m_gs.symbolSet = asInt(number(op, attr::SymbolSet, 0));
        break;
    }
    case op::SetCharAngle: {
        const double a = need(op, attr::CharAngle).number();
        if (!std::isfinite(a))
            failOp("unusable CharAngle");
        m_gs.charAngle = std::fmod(a, 360.0);
        break;
    }
    case op::SetCharScale: {
        const Point s = xy(needXy(op, attr::CharScale));
        if (!finite(s) || std::fabs(s.x) > 1e4 || std::fabs(s.y) > 1e4)
            failOp("CharScale out of range");
        m_gs.charScaleX = s.x;
        m_gs.charScaleY = s.y;
        break;
    }
    case op::SetCharShear: {
        const Point s = xy(needXy(op, attr::CharShear));
        if (!finite(s) || std::fabs(s.x) > 1e4 || std::fabs(s.y) > 1e4)
            failOp("CharShear out of range");
        m_gs.charShearX = s.x;
        m_gs.charShearY = s.y;
        break;
    }
    case op::SetCharBoldValue: {
        const double b = need(op, attr::CharBoldValue).number();
        m_gs.charBold = std::isfinite(b) ? std::clamp(b, 0.0, 1.0) : 0.0;
        break;
    }
    case op::SetCharAttributes: m_gs.verticalWriting = number(op, attr::WritingMode, 0) == 1; break;
    case op::Text:
        requirePage(op);
        text(op, false);
        break;
    case op::TextPath:
        requirePage(op);
        text(op, true);
        break;
    case op::SystemText: warnOnce("SystemText is skipped"); break;

    // ---- User-defined streams ----
    case op::BeginStream:
        m_streamName = need(op, attr::StreamName).text();
        m_streamData.clear();
        m_inStream = true;
        break;
    case op::ReadStream:
        if (!m_inStream)
            failOp("ReadStream without BeginStream");
        if (op.hasData)
            m_streamData.insert(m_streamData.end(), op.data, op.data + op.dataSize);
        break;
    case op::EndStream:
        if (!m_inStream)
            failOp("EndStream without BeginStream");
        m_inStream = false;
        m_streams[m_streamName] = std::make_shared<const std::vector<uint8_t>>(std::move(m_streamData));
        m_streamData.clear();
        break;
    case op::RemoveStream: m_streams.erase(need(op, attr::StreamName).text()); break;
    case op::ExecStream: {
        const std::string name = need(op, attr::StreamName).text();
        auto it = m_streams.find(name);
        if (it == m_streams.end())
            failOp("ExecStream of an unknown stream");
        if (depth >= kMaxStreamDepth)
            failOp("streams nested too deeply");
        // The stored bytes stay alive while they run, even if the stream removes itself.
        const std::shared_ptr<const std::vector<uint8_t>> bytes = it->second;
        StreamReader inner(bytes->data(), bytes->size());
        if (!inner.readHeader())
            failOp("in stream \"" + name + "\": " + inner.error());
        Operator innerOp;
        for (;;) {
            const StreamReader::Status st = inner.next(innerOp);
            if (st == StreamReader::Status::End)
                break;
            if (st == StreamReader::Status::Error)
                failOp("in stream \"" + name + "\": " + inner.error());
            m_streamLittle = inner.header().littleEndian;
            if (++m_streamOperators > kMaxStreamOperators)
                failOp("user-defined streams run too long");
            try {
                execute(innerOp, depth + 1);
            } catch (const XlError& e) {
                failOp("in stream \"" + name + "\": " + e.what + " in " + innerOp.name() + " at byte " +
                       std::to_string(innerOp.offset));
            }
        }
        break;
    }
    default: failOp("unsupported operator");
    }
}

// ---------------------------------------------------------------- session and page

void Interpreter::beginSession(const Operator& op) {
    if (m_inSession)
        failOp("BeginSession inside a session");
    const Point units = xy(needXy(op, attr::UnitsPerMeasure));
    const int measure = asInt(number(op, attr::Measure, eInch));
    if (measure < 0 || measure > 2)
        failOp("unknown Measure " + std::to_string(measure));
    if (!(units.x > 0) || !(units.y > 0) || units.x > 1e6 || units.y > 1e6)
        failOp("UnitsPerMeasure out of range");
    const double inch = measureToInch(measure);
    m_unitsX = units.x * inch;
    m_unitsY = units.y * inch;
    m_unitsPerInch = measure == eInch;
    m_declaredX = m_unitsPerInch ? units.x : 0;
    m_declaredY = m_unitsPerInch ? units.y : 0;
    m_inSession = true;
}

void Interpreter::beginPage(const Operator& op) {
    if (!m_inSession)
        failOp("BeginPage outside a session");
    if (m_inPage)
        failOp("BeginPage inside a page");
    double w = 612, h = 792;
    bool sized = false;
    if (const Value* ms = op.find(attr::MediaSize)) {
        const MediaEntry* m = nullptr;
        if (ms->isArray()) {
            m = mediaByName(ms->text());
            if (!m)
                warnOnce("unknown media size \"" + ms->text() + "\", Letter used");
        } else {
            const int code = asInt(ms->number());
            for (const MediaEntry& e : kMedia)
                if (e.code == code)
                    m = &e;
            if (!m)
                warnOnce("unknown media size " + std::to_string(code) + ", Letter used");
        }
        if (m) {
            w = m->wPt;
            h = m->hPt;
        }
        sized = true;
    } else if (const Value* cs = op.find(attr::CustomMediaSize)) {
        const Point s = xy(*cs);
        const int units = asInt(number(op, attr::CustomMediaSizeUnits, eInch));
        const double perInch = measureToInch(units);
        w = s.x / perInch * 72.0;
        h = s.y / perInch * 72.0;
        if (!(w >= 1) || !(h >= 1) || w > 72.0 * 200 || h > 72.0 * 200)
            failOp("CustomMediaSize out of range");
        sized = true;
    }
    if (!sized && !m_ctx.pjl.paper.empty()) {
        if (const MediaEntry* m = mediaByName(m_ctx.pjl.paper)) {
            w = m->wPt;
            h = m->hPt;
        }
    }
    int orientation = ePortrait;
    if (const Value* o = op.find(attr::Orientation))
        orientation = asInt(o->number());
    else if (m_ctx.pjl.orientation == "LANDSCAPE")
        orientation = eLandscape;
    if (orientation < 0 || orientation > 3)
        failOp("unknown Orientation " + std::to_string(orientation));
    const bool landscape = orientation == eLandscape || orientation == eReverseLandscape;
    if (landscape)
        std::swap(w, h);
    m_page = PageSpec{};
    m_page.widthPt = w;
    m_page.heightPt = h;
    m_page.declaredDpiX = m_declaredX;
    m_page.declaredDpiY = m_declaredY;
    m_pageCtm = Matrix::scale(72.0 / m_unitsX, 72.0 / m_unitsY);
    if (orientation == eReversePortrait || orientation == eReverseLandscape)
        m_pageCtm = Matrix{-1, 0, 0, -1, w, h} * m_pageCtm;
    m_dev.beginPage(m_page);
    m_inPage = true;
    m_pageMarked = false;
    m_stack.clear();
    m_path.clear();
    resetGraphics();
}

void Interpreter::resetGraphics() {
    m_gs = GState{};
    m_gs.ctm = m_pageCtm;
    // Printers start with opaque source and paint.
    m_gs.rs.sourceTransparent = false;
    m_gs.rs.patternTransparent = false;
}

void Interpreter::endPage(bool print) {
    if (m_image.active && !m_image.pattern)
        m_image.active = false;
    if (print) {
        m_dev.endPage();
        ++m_pagesEjected;
    } else {
        m_dev.discardPage();
    }
    m_inPage = false;
    m_pageMarked = false;
    for (auto it = m_patterns.begin(); it != m_patterns.end();)
        it = it->second.persistence < 2 ? m_patterns.erase(it) : std::next(it);
}

// ---------------------------------------------------------------- colour

void Interpreter::setColorSpace(const Operator& op) {
    ColorState cs;
    int space = asInt(number(op, attr::ColorSpace, eGray));
    if (space == eSRGB || space == eCRGB)
        space = eRGB;
    if (space != eGray && space != eRGB && space != eBiLevel)
        failOp("unsupported ColorSpace " + std::to_string(space));
    cs.space = uint8_t(space);
    if (const Value* data = op.find(attr::PaletteData)) {
        const int depth = asInt(number(op, attr::PaletteDepth, e8Bit));
        if (depth != e8Bit)
            failOp("PaletteDepth must be 8 bits");
        const size_t comps = space == eRGB ? 3 : 1;
        const size_t n = data->size() / comps;
        if (n == 0 || n * comps != data->size() || n > 256)
            failOp("PaletteData does not match the colour space");
        cs.palette.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            if (comps == 3)
                cs.palette.push_back({clampByte(data->at(i * 3)), clampByte(data->at(i * 3 + 1)),
                                      clampByte(data->at(i * 3 + 2))});
            else {
                const uint8_t g = clampByte(data->at(i));
                cs.palette.push_back({g, g, g});
            }
        }
    }
    m_gs.color = cs;
}

Rgb Interpreter::grayColor(const Value& v) const {
    double g = v.number();
    if (v.isReal())
        g *= 255.0;
    else if (m_gs.color.space == eBiLevel && g <= 1)
        g *= 255.0;
    const uint8_t b = clampByte(g);
    return {b, b, b};
}

Rgb Interpreter::colorFromSpace(const Value& v, uint8_t space, int depthBits) const {
    const double maxv = v.isReal() ? 1.0 : double((1 << depthBits) - 1);
    auto chan = [&](size_t i) { return clampByte(v.at(i) / maxv * 255.0); };
    if (space == eRGB) {
        if (v.size() >= 3)
            return {chan(0), chan(1), chan(2)};
        if (v.size() == 1)
            return {chan(0), chan(0), chan(0)};
        failOp("colour needs three components");
    }
    if (v.size() == 3) {
        const Rgb c{chan(0), chan(1), chan(2)};
        return c;
    }
    if (v.size() >= 1)
        return {chan(0), chan(0), chan(0)};
    failOp("empty colour");
}

Paint Interpreter::paintFrom(const Operator& op, bool& isNull) {
    isNull = false;
    if (op.find(attr::NullBrush) || op.find(attr::NullPen)) {
        isNull = true;
        return Paint::none();
    }
    if (const Value* v = op.find(attr::RGBColor))
        return Paint::solid(colorFromSpace(*v, eRGB));
    if (const Value* v = op.find(attr::GrayLevel)) {
        // With a palette, an integer grey level picks a palette entry.
        if (!m_gs.color.palette.empty() && !v->isReal() && !v->isArray()) {
            const size_t i = asSize(v->number());
            return Paint::solid(i < m_gs.color.palette.size() ? m_gs.color.palette[i] : Rgb::black());
        }
        return Paint::solid(grayColor(*v));
    }
    if (const Value* v = op.find(attr::PaletteIndex)) {
        const size_t i = asSize(v->number());
        if (i >= m_gs.color.palette.size())
            failOp("PaletteIndex outside the palette");
        return Paint::solid(m_gs.color.palette[i]);
    }
    if (const Value* v = op.find(attr::PrimaryArray)) {
        const int depth = asInt(number(op, attr::PrimaryDepth, e8Bit));
        const int bits = depth == e1Bit ? 1 : depth == e4Bit ? 4 : 8;
        if (!m_gs.color.palette.empty() && v->size() == 1 && !v->isReal()) {
            const size_t i = asSize(v->at(0));
            return Paint::solid(i < m_gs.color.palette.size() ? m_gs.color.palette[i] : Rgb::black());
        }
        return Paint::solid(colorFromSpace(*v, m_gs.color.space, bits));
    }
    if (op.find(attr::PatternSelectID))
        return Paint::solid(Rgb::black()); // replaced by the pattern
    failOp("no colour given");
}

// ---------------------------------------------------------------- paths

void Interpreter::addPoints(const Operator& op, bool relative, bool bezier) {
    std::vector<Point> pts;
    if (const Value* n = op.find(attr::NumberOfPoints)) {
        const size_t count = asSize(n->number());
        const int type = asInt(number(op, attr::PointType, eSInt16));
        const size_t each = type == eUByte || type == eSByte ? 1 : type == eUInt16 || type == eSInt16 ? 2 : 0;
        if (each == 0)
            failOp("unknown PointType " + std::to_string(type));
        if (!op.hasData)
            failOp("missing point data");
        if (count * 2 * each > op.dataSize)
            failOp("point data shorter than NumberOfPoints");
        if (bezier && count % 3 != 0)
            failOp("NumberOfPoints is not a multiple of three");
        pts.reserve(count);
        const uint8_t* p = op.data;
        auto readOne = [&](const uint8_t* q) -> double {
            switch (type) {
            case eUByte: return q[0];
            case eSByte: return int8_t(q[0]);
            case eUInt16: return m_streamLittle ? uint16_t(q[0] | q[1] << 8) : uint16_t(q[0] << 8 | q[1]);
            default: return m_streamLittle ? int16_t(q[0] | q[1] << 8) : int16_t(q[0] << 8 | q[1]);
            }
        };
        for (size_t i = 0; i < count; ++i) {
            pts.push_back({readOne(p), readOne(p + each)});
            p += 2 * each;
        }
    } else if (bezier) {
        const Point c1 = xy(needXy(op, attr::ControlPoint1));
        const Point c2 = xy(needXy(op, attr::ControlPoint2));
        const Point e = xy(needXy(op, attr::EndPoint));
        pts = {c1, c2, e};
    } else {
        pts.push_back(xy(needXy(op, attr::EndPoint)));
    }
    // A cursor move starts a new subpath only when a segment follows it.
    if (m_path.empty() || m_pendingMove)
        m_path.moveTo(m_gs.cursor);
    m_pendingMove = false;
    Point cur = m_gs.cursor;
    if (bezier) {
        for (size_t i = 0; i + 2 < pts.size(); i += 3) {
            Point q[3];
            for (int k = 0; k < 3; ++k) {
                if (relative) {
                    const Point v = userVector(pts[i + k].x, pts[i + k].y);
                    q[k] = {cur.x + v.x, cur.y + v.y};
                } else {
                    q[k] = userToPage(pts[i + k].x, pts[i + k].y);
                }
            }
            m_path.curveTo(q[0], q[1], q[2]);
            cur = q[2];
        }
    } else {
        for (const Point& p : pts) {
            if (relative) {
                const Point v = userVector(p.x, p.y);
                cur = {cur.x + v.x, cur.y + v.y};
            } else {
                cur = userToPage(p.x, p.y);
            }
            m_path.lineTo(cur);
        }
    }
    m_gs.cursor = cur;
}

void Interpreter::addArcShape(const Operator& op, int kind) {
    const Box b = needBox(op, attr::BoundingBox);
    const double cx = (b.x1 + b.x2) / 2, cy = (b.y1 + b.y2) / 2;
    const double rx = (b.x2 - b.x1) / 2, ry = (b.y2 - b.y1) / 2;
    const Matrix& m = m_gs.ctm;
    if (kind == 4) { // rectangle
        m_path.moveTo(m.apply({b.x1, b.y1}));
        m_path.lineTo(m.apply({b.x2, b.y1}));
        m_path.lineTo(m.apply({b.x2, b.y2}));
        m_path.lineTo(m.apply({b.x1, b.y2}));
        m_path.close();
        m_gs.cursor = m.apply({b.x1, b.y1});
        m_subpathStart = m_gs.cursor;
        return;
    }
    if (kind == 3) { // ellipse
        appendArc(m_path, m, cx, cy, rx, ry, 0, 2 * kPi, true);
        m_path.close();
        m_gs.cursor = m.apply({cx + rx, cy});
        m_subpathStart = m_gs.cursor;
        return;
    }
    const Point s = xy(needXy(op, attr::StartPoint));
    const Point e = xy(needXy(op, attr::EndPoint));
    auto angle = [&](Point p) {
        return std::atan2(ry > 0 ? (p.y - cy) / ry : 0, rx > 0 ? (p.x - cx) / rx : 0);
    };
    const double a0 = angle(s), a1 = angle(e);
    // Counter-clockwise as seen on the page (y down) runs towards smaller angles.
    const bool clockwise = number(op, attr::ArcDirection, 1) == 0;
    double sweep;
    if (clockwise) {
        sweep = a1 - a0;
        while (sweep <= 1e-9)
            sweep += 2 * kPi;
    } else {
        sweep = a1 - a0;
        while (sweep >= -1e-9)
            sweep -= 2 * kPi;
    }
    if (kind == 2) {
        m_path.moveTo(m.apply({cx, cy}));
        appendArc(m_path, m, cx, cy, rx, ry, a0, sweep, false);
        m_path.close();
        m_gs.cursor = m.apply({cx, cy});
        m_subpathStart = m_gs.cursor;
        return;
    }
    appendArc(m_path, m, cx, cy, rx, ry, a0, sweep, true);
    const Point end{cx + rx * std::cos(a0 + sweep), cy + ry * std::sin(a0 + sweep)};
    if (kind == 1) {
        m_path.close();
        m_gs.cursor = m.apply({cx + rx * std::cos(a0), cy + ry * std::sin(a0)});
        m_subpathStart = m_gs.cursor;
    } else {
        m_gs.cursor = m.apply(end);
        m_subpathStart = m.apply({cx + rx * std::cos(a0), cy + ry * std::sin(a0)});
    }
}

void Interpreter::addRoundRect(const Operator& op) {
    const Box b = needBox(op, attr::BoundingBox);
    const Point ed = xy(needXy(op, attr::EllipseDimension));
    const double rx = std::min(std::fabs(ed.x) / 2, (b.x2 - b.x1) / 2);
    const double ry = std::min(std::fabs(ed.y) / 2, (b.y2 - b.y1) / 2);
    const Matrix& m = m_gs.ctm;
    Path& p = m_path;
    p.moveTo(m.apply({b.x1 + rx, b.y1}));
    p.lineTo(m.apply({b.x2 - rx, b.y1}));
    appendArc(p, m, b.x2 - rx, b.y1 + ry, rx, ry, -kPi / 2, kPi / 2, false);
    p.lineTo(m.apply({b.x2, b.y2 - ry}));
    appendArc(p, m, b.x2 - rx, b.y2 - ry, rx, ry, 0, kPi / 2, false);
    p.lineTo(m.apply({b.x1 + rx, b.y2}));
    appendArc(p, m, b.x1 + rx, b.y2 - ry, rx, ry, kPi / 2, kPi / 2, false);
    p.lineTo(m.apply({b.x1, b.y1 + ry}));
    appendArc(p, m, b.x1 + rx, b.y1 + ry, rx, ry, kPi, kPi / 2, false);
    p.close();
    m_gs.cursor = m.apply({b.x1 + rx, b.y1});
    m_subpathStart = m_gs.cursor;
}

StrokeStyle Interpreter::currentStroke() const {
    StrokeStyle s = m_gs.stroke;
    const double k = userToPageScale();
    s.width = m_gs.penWidthUser * k;
    s.dashes.clear();
    for (double d : m_gs.dashUser)
        s.dashes.push_back(d * k);
    s.dashOffset = m_gs.dashOffsetUser * k;
    return s;
}

void Interpreter::paintPath() {
    const Path& path = m_path;
    // A path of nothing but moves paints nothing.
    bool hasSegments = false;
    for (Path::Op o : path.ops())
        if (o == Path::Op::Line || o == Path::Op::Curve)
            hasSegments = true;
    if (!hasSegments)
        return;
    for (const Point& p : path.points())
        if (!finite(p))
            failOp("path coordinates out of range");
    if (m_gs.brush.kind != Paint::Kind::None) {
        m_dev.fillPath(path, m_gs.fillRule, m_gs.brush, m_gs.rs);
        drew();
    }
    if (m_gs.pen.kind != Paint::Kind::None) {
        m_dev.strokePath(path, currentStroke(), m_gs.pen, m_gs.rs);
        drew();
    }
}

void Interpreter::clipToPath(const Path& pagePath, FillRule rule, bool exterior, bool replace) {
    for (const Point& p : pagePath.points())
        if (!finite(p))
            failOp("clip path coordinates out of range");
    std::shared_ptr<ClipRegion> clip = std::make_shared<ClipRegion>();
    if (!replace && m_gs.rs.clip)
        *clip = *m_gs.rs.clip;
    // A rectangle that holds the whole page clips nothing: drivers send one before every object.
    if (!exterior && pagePath.ops().size() >= 4) {
        double minX = 1e300, minY = 1e300, maxX = -1e300, maxY = -1e300;
        bool axisAligned = true;
        const auto& pts = pagePath.points();
        for (Path::Op o : pagePath.ops())
            if (o == Path::Op::Curve)
                axisAligned = false;
        if (axisAligned && pts.size() >= 4 && pts.size() <= 5) {
            for (const Point& p : pts) {
                minX = std::min(minX, p.x);
                minY = std::min(minY, p.y);
                maxX = std::max(maxX, p.x);
                maxY = std::max(maxY, p.y);
            }
            for (const Point& p : pts)
                if ((std::fabs(p.x - minX) > 1e-6 && std::fabs(p.x - maxX) > 1e-6) ||
                    (std::fabs(p.y - minY) > 1e-6 && std::fabs(p.y - maxY) > 1e-6))
                    axisAligned = false;
            const double slack = 0.5;
            if (axisAligned && minX <= slack && minY <= slack && maxX >= m_page.widthPt - slack &&
                maxY >= m_page.heightPt - slack) {
                if (clip->entries.empty())
                    m_gs.rs.clip.reset();
                else
                    m_gs.rs.clip = clip;
                return;
            }
        }
    }
    ClipRegion::Entry e;
    if (exterior) {
        // Outside the path: the page with the path cut out of it.
        const double big = std::max(m_page.widthPt, m_page.heightPt) * 4;
        e.path.addRect(-big, -big, 3 * big, 3 * big);
        e.path.append(pagePath);
        e.rule = FillRule::EvenOdd;
    } else {
        e.path = pagePath;
        e.rule = rule;
    }
    if (clip->entries.size() >= kMaxClipEntries) {
        warnOnce("too many nested clip paths; the innermost are ignored");
    } else {
        clip->entries.push_back(std::move(e));
    }
    m_gs.rs.clip = clip;
}

// ---------------------------------------------------------------- images and patterns

void Interpreter::beginImage(const Operator& op, bool pattern) {
    if (m_image.active)
        failOp("image or pattern already open");
    ImageState im;
    im.pattern = pattern;
    im.mapping = asInt(need(op, attr::ColorMapping).number());
    im.depth = asInt(need(op, attr::ColorDepth).number());
    const double w = need(op, attr::SourceWidth).number();
    const double h = need(op, attr::SourceHeight).number();
    const Point dest = xy(needXy(op, attr::DestinationSize));
    if (im.mapping != eDirectPixel && im.mapping != eIndexedPixel)
        failOp("unknown ColorMapping " + std::to_string(im.mapping));
    if (im.depth < e1Bit || im.depth > e8Bit)
        failOp("unknown ColorDepth " + std::to_string(im.depth));
    if (!(w >= 1) || !(h >= 1) || w > kMaxImageSide || h > kMaxImageSide)
        failOp("image size out of range");
    if (!std::isfinite(dest.x) || !std::isfinite(dest.y))
        failOp("unusable DestinationSize");
    im.width = int(w);
    im.height = int(h);
    im.destW = dest.x;
    im.destH = dest.y;
    im.color = m_gs.color;
    if (im.mapping == eIndexedPixel && im.color.palette.empty()) {
        // No palette: the indices run from black to white.
        const int n = 1 << (im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8);
        for (int i = 0; i < n; ++i) {
            const uint8_t g = uint8_t(i * 255 / (n - 1));
            im.color.palette.push_back({g, g, g});
        }
    }
    const int bits = im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8;
    const int comps = im.mapping == eDirectPixel && im.color.space == eRGB ? 3 : 1;
    im.seed.assign((size_t(im.width) * bits * comps + 7) / 8, 0);
    if (pattern) {
        if (size_t(im.width) * size_t(im.height) > kMaxPatternPixels)
            failOp("pattern larger than 1048576 pixels");
        im.patternId = asInt(need(op, attr::PatternDefineID).number());
        im.persistence = asInt(number(op, attr::PatternPersistence, 0));
        im.tile = std::make_shared<PatternTile>();
        im.tile->width = im.width;
        im.tile->height = im.height;
        im.tile->pixels.assign(size_t(im.width) * im.height, Rgb::white());
    } else {
        im.imageToPage = Matrix::translate(m_gs.cursor.x, m_gs.cursor.y) *
                         Matrix{m_gs.ctm.a, m_gs.ctm.b, m_gs.ctm.c, m_gs.ctm.d, 0, 0} *
                         Matrix::scale(im.destW / im.width, im.destH / im.height);
    }
    im.active = true;
    m_image = std::move(im);
}

void Interpreter::readImage(const Operator& op) {
    ImageState& im = m_image;
    const int start = asInt(need(op, attr::StartLine).number());
    const int count = asInt(need(op, attr::BlockHeight).number());
    const int compress = asInt(number(op, attr::CompressMode, eNoCompression));
    int pad = asInt(number(op, attr::PadBytesMultiple, 4));
    if (pad < 1 || pad > 4)
        pad = 4;
    if (start < 0 || count < 0)
        failOp("negative StartLine or BlockHeight");
    if (!op.hasData) {
        if (count == 0)
            return;
        failOp("missing image data");
    }
    const size_t rowBytes = im.seed.size();
    const size_t padded = compress == eDeltaRowCompression ? rowBytes : (rowBytes + pad - 1) / pad * pad;
    // Rows past the declared height are dropped.
    const int usable = std::max(0, std::min(count, im.height - start));
    const int chunkRows = int(std::max<size_t>(1, kMaxStripBytes / std::max<size_t>(padded * 3, 1)));
    std::vector<uint8_t> rows;
    bool damaged = false;
    switch (compress) {
    case eNoCompression: {
        const size_t have = op.dataSize / padded;
        const int n = int(std::min<size_t>(size_t(usable), have));
        if (size_t(count) * padded > op.dataSize)
            damaged = true;
        for (int r = 0; r < n; r += chunkRows) {
            const int k = std::min(chunkRows, n - r);
            rows.assign(op.data + size_t(r) * padded, op.data + size_t(r + k) * padded);
            deliverRows(rows, padded, start + r, k);
        }
        break;
    }
    case eRLECompression: {
        RunLengthDecoder dec(op.data, op.dataSize);
        for (int r = 0; r < usable; r += chunkRows) {
            const int k = std::min(chunkRows, usable - r);
            rows.clear();
            const size_t got = dec.read(size_t(k) * padded, rows);
            const int full = int(got / padded);
            if (full > 0)
                deliverRows(rows, padded, start + r, full);
            if (full < k) {
                damaged = true;
                break;
            }
        }
        if (dec.damaged())
            damaged = true;
        break;
    }
    case eDeltaRowCompression: {
        DeltaRowDecoder dec(op.data, op.dataSize);
        for (int r = 0; r < usable;) {
            const int k = std::min(chunkRows, usable - r);
            rows.clear();
            int got = 0;
            while (got < k && dec.nextRow(im.seed)) {
                rows.insert(rows.end(), im.seed.begin(), im.seed.end());
                ++got;
            }
            if (got > 0)
                deliverRows(rows, rowBytes, start + r, got);
            r += got;
            if (got < k) {
                damaged = true;
                break;
            }
        }
        if (dec.damaged())
            damaged = true;
        break;
    }
    case eJPEGCompression: {
        if (im.mapping != eDirectPixel || im.depth != e8Bit)
            failOp("JPEG data needs direct 8-bit pixels");
        JpegInfo info;
        std::string error;
        const int comps = im.color.space == eRGB ? 3 : 1;
        std::vector<uint8_t> converted;
        bool mismatch = false;
        const bool ok = decodeJpeg(op.data, op.dataSize, im.width, info,
            [&](const uint8_t* data, int first, int n) {
                if (info.components != comps && !(info.components == 3 || info.components == 1)) {
                    mismatch = true;
                    return;
                }
                const int line = start + first;
                const int k = std::max(0, std::min(n, im.height - line));
                if (k == 0)
                    return;
                converted.assign(rowBytes * k, 0xFF);
                for (int r = 0; r < k; ++r) {
                    const uint8_t* src = data + size_t(r) * info.width * info.components;
                    uint8_t* dst = converted.data() + size_t(r) * rowBytes;
                    for (int x = 0; x < std::min(info.width, im.width); ++x) {
                        if (comps == info.components) {
                            std::memcpy(dst + size_t(x) * comps, src + size_t(x) * comps, comps);
                        } else if (comps == 3) {
                            dst[x * 3] = dst[x * 3 + 1] = dst[x * 3 + 2] = src[x];
                        } else {
                            const uint8_t* p = src + size_t(x) * 3;
                            dst[x] = uint8_t((p[0] * 30 + p[1] * 59 + p[2] * 11) / 100);
                        }
                    }
                }
                deliverRows(converted, rowBytes, line, k);
            },
            error);
        if (!ok)
            failOp("damaged JPEG data (" + error + ")");
        if (mismatch)
            failOp("JPEG data does not match the colour space");
        break;
    }
    default: failOp("unknown CompressMode " + std::to_string(compress));
    }
    if (damaged)
        failOp("image data shorter than BlockHeight");
}

void Interpreter::deliverRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count) {
    ImageState& im = m_image;
    if (count <= 0 || startLine >= im.height)
        return;
    if (im.pattern) {
        drawRows(rows, rowBytes, startLine, count);
        return;
    }
    if (im.pendingCount > 0 && (startLine != im.pendingStart + im.pendingCount || rowBytes != im.pendingRowBytes))
        flushImageRows();
    // A strip is drawn as up to 3 bytes a pixel: keep it within the strip budget.
    const int maxRows = int(std::max<size_t>(1, kMaxStripBytes / std::max<size_t>(size_t(im.width) * 3, 1)));
    if (im.pendingCount == 0) {
        im.pendingStart = startLine;
        im.pendingRowBytes = rowBytes;
        m_stripRows.clear();
        // Room for a whole strip at once, so that gathering rows never moves them.
        const size_t strip = size_t(maxRows) * rowBytes;
        if (m_stripRows.capacity() < strip && strip <= kMaxStripBytes)
            m_stripRows.reserve(strip);
    }
    m_stripRows.insert(m_stripRows.end(), rows.begin(), rows.begin() + std::ptrdiff_t(size_t(count) * rowBytes));
    im.pendingCount += count;
    if (im.pendingCount >= maxRows)
        flushImageRows();
}

void Interpreter::flushImageRows() {
    ImageState& im = m_image;
    if (im.pendingCount <= 0)
        return;
    const int start = im.pendingStart, count = im.pendingCount;
    im.pendingCount = 0;
    drawRows(m_stripRows, im.pendingRowBytes, start, count);
    m_stripRows.clear();
}

namespace {

// The raster operation that gives, with a black source, what rop gives with a white one: each
// result bit for S = 0 is rop's bit for S = 1 (bit index T*4 + S*2 + D).
uint8_t ropWithWhiteSource(uint8_t rop) {
    uint8_t out = 0;
    for (int i = 0; i < 8; ++i)
        if (rop & (1 << (i | 2)))
            out = uint8_t(out | (1 << i));
    return out;
}

} // namespace

// Whether the device draws a picture placed by toPage smaller than its own pixels (then it
// averages the picture's pixels rather than sampling them).
bool Interpreter::drawnReduced(const Matrix& toPage) const {
    const auto inv = (m_dev.pageToDevice() * toPage).inverted();
    if (!inv)
        return false;
    return inv->b == 0 && inv->c == 0 && (std::fabs(inv->a) > 1 + 1e-9 || std::fabs(inv->d) > 1 + 1e-9);
}

void Interpreter::drawRows(std::vector<uint8_t>& rows, size_t rowBytes, int startLine, int count) {
    ImageState& im = m_image;
    if (count <= 0 || startLine >= im.height)
        return;
    count = std::min(count, im.height - startLine);
    const int bits = im.depth == e1Bit ? 1 : im.depth == e4Bit ? 4 : 8;
    const bool rgbDirect = im.mapping == eDirectPixel && im.color.space == eRGB;
    const bool grayOut = im.mapping == eDirectPixel ? im.color.space != eRGB
                                                    : std::all_of(im.color.palette.begin(), im.color.palette.end(),
                                                                  [](Rgb c) { return c.r == c.g && c.g == c.b; });
    auto sample = [&](const uint8_t* row, size_t index) -> unsigned {
        switch (bits) {
        case 1: return (row[index >> 3] >> (7 - (index & 7))) & 1;
        case 4: return (row[index >> 1] >> ((index & 1) ? 0 : 4)) & 0xF;
        default: return row[index];
        }
    };
    const unsigned maxv = (1u << bits) - 1;
    auto pixel = [&](const uint8_t* row, int x) -> Rgb {
        if (im.mapping == eIndexedPixel) {
            const unsigned i = sample(row, size_t(x));
            return i < im.color.palette.size() ? im.color.palette[i] : Rgb::black();
        }
        if (rgbDirect) {
            return {uint8_t(sample(row, size_t(x) * 3) * 255 / maxv), uint8_t(sample(row, size_t(x) * 3 + 1) * 255 / maxv),
                    uint8_t(sample(row, size_t(x) * 3 + 2) * 255 / maxv)};
        }
        const uint8_t g = uint8_t(sample(row, size_t(x)) * 255 / maxv);
        return {g, g, g};
    };
    if (im.pattern) {
        for (int r = 0; r < count; ++r) {
            const uint8_t* row = rows.data() + size_t(r) * rowBytes;
            Rgb* out = im.tile->pixels.data() + size_t(startLine + r) * im.width;
            for (int x = 0; x < im.width; ++x)
                out[x] = pixel(row, x);
        }
        return;
    }
    const Matrix strip = im.imageToPage * Matrix::translate(0, startLine);
    const Paint texture = m_gs.brush.kind == Paint::Kind::None ? Paint::solid(Rgb::black()) : m_gs.brush;
    // A one-bit black-and-white image is a mask of its black pixels, which spares the device a
    // full colour image. With a transparent source that is all; an opaque source paints its white
    // pixels as well, which is the same raster operation over the other pixels with its source
    // read as white (a mask's source is black). Pictures drawn smaller than their pixels stay
    // pictures then: the device reduces pictures and masks in different ways.
    if (bits == 1 && im.mapping == eIndexedPixel && im.color.palette.size() >= 2) {
        const Rgb c0 = im.color.palette[0], c1 = im.color.palette[1];
        const bool zeroInk = c0 == Rgb::black() && c1 == Rgb::white();
        const bool oneInk = c1 == Rgb::black() && c0 == Rgb::white();
        const bool opaque = !m_gs.rs.sourceTransparent;
        if ((zeroInk || oneInk) && (!opaque || !drawnReduced(strip))) {
            Mask& mask = m_stripMask;
            mask.width = im.width;
            mask.height = count;
            mask.stride = (size_t(im.width) + 7) / 8;
            mask.bits.resize(mask.stride * count);
            const uint8_t lastBits = im.width % 8 ? uint8_t(0xFF << (8 - im.width % 8)) : 0xFF;
            auto copyRows = [&](const uint8_t* from, size_t fromStride, bool invert) {
                const uint64_t flip = invert ? ~uint64_t(0) : 0;
                for (int r = 0; r < count; ++r) {
                    const uint8_t* row = from + size_t(r) * fromStride;
                    uint8_t* out = mask.bits.data() + size_t(r) * mask.stride;
                    size_t b = 0;
                    for (; b + 8 <= mask.stride; b += 8) {
                        uint64_t v;
                        std::memcpy(&v, row + b, 8);
                        v ^= flip;
                        std::memcpy(out + b, &v, 8);
                    }
                    for (; b < mask.stride; ++b)
                        out[b] = uint8_t(row[b] ^ uint8_t(flip));
                    out[mask.stride - 1] &= lastBits;
                }
            };
            copyRows(rows.data(), rowBytes, zeroInk);
            m_dev.fillMask(mask, strip, texture, m_gs.rs);
            if (opaque) {
                copyRows(rows.data(), rowBytes, oneInk);
                RenderState white = m_gs.rs;
                white.rop3 = ropWithWhiteSource(m_gs.rs.rop3);
                white.patternTransparent = false; // it applies where the source is not white
                m_dev.fillMask(mask, strip, texture, white);
            }
            drew();
            return;
        }
    }
    Image& img = m_stripImage;
    img.width = im.width;
    img.height = count;
    img.format = grayOut ? Image::Format::Gray8 : Image::Format::Rgb24;
    if (bits == 8 && im.mapping == eDirectPixel && (grayOut || rgbDirect)) {
        // The rows already are the picture: close up their padding in place and lend them
        // to the device (they are not needed afterwards).
        const size_t packed = size_t(im.width) * (grayOut ? 1 : 3);
        if (packed < rowBytes)
            for (int r = 1; r < count; ++r)
                std::memmove(rows.data() + size_t(r) * packed, rows.data() + size_t(r) * rowBytes, packed);
        rows.resize(packed * size_t(count));
        img.stride = packed;
        img.data.swap(rows);
        m_dev.drawImage(img, strip, texture, m_gs.rs);
        img.data.swap(rows);
        drew();
        return;
    }
    img.stride = size_t(im.width) * (grayOut ? 1 : 3);
    img.data.resize(img.stride * count);
    for (int r = 0; r < count; ++r) {
        const uint8_t* row = rows.data() + size_t(r) * rowBytes;
        uint8_t* out = img.data.data() + size_t(r) * img.stride;
        for (int x = 0; x < im.width; ++x) {
            const Rgb c = pixel(row, x);
            if (grayOut)
                out[x] = c.r;
            else {
                out[x * 3] = c.r;
                out[x * 3 + 1] = c.g;
                out[x * 3 + 2] = c.b;
            }
        }
    }
    m_dev.drawImage(img, strip, texture, m_gs.rs);
    drew();
}

void Interpreter::endImage() {
    flushImageRows();
    if (m_image.pattern) {
        Pattern p;
        p.tile = m_image.tile;
        p.destW = m_image.destW;
        p.destH = m_image.destH;
        p.persistence = m_image.persistence;
        m_patterns[m_image.patternId] = std::move(p);
    }
    m_image = ImageState{};
}

void Interpreter::selectPattern(int id, const Operator& op, Paint& into) {
    auto it = m_patterns.find(id);
    if (it == m_patterns.end())
        failOp("pattern " + std::to_string(id) + " is not defined");
    Pattern& pat = it->second;
    double dw = pat.destW, dh = pat.destH;
    if (const Value* nd = op.find(attr::NewDestinationSize)) {
        const Point s = xy(*nd);
        dw = s.x;
        dh = s.y;
    }
    Point origin{0, 0};
    if (const Value* o = op.find(attr::PatternOrigin))
        origin = xy(*o);
    const Matrix placement = m_gs.ctm * Matrix::translate(origin.x, origin.y) *
                             Matrix::scale(dw / pat.tile->width, dh / pat.tile->height);
    for (double v : {placement.a, placement.b, placement.c, placement.d, placement.e, placement.f})
        if (!std::isfinite(v))
            failOp("unusable pattern size or origin");
    auto same = [](const Matrix& a, const Matrix& b) {
        return a.a == b.a && a.b == b.b && a.c == b.c && a.d == b.d && a.e == b.e && a.f == b.f;
    };
    if (!pat.lastSelected || !same(pat.lastSelected->tileToPage, placement)) {
        auto tile = std::make_shared<PatternTile>(*pat.tile);
        tile->tileToPage = placement;
        pat.lastSelected = std::move(tile);
    }
    into = Paint::tiled(pat.lastSelected);
}

// ---------------------------------------------------------------- scan lines

void Interpreter::scanLineRel(const Operator& op) {
    // Each scan line: y offset (relative to the cursor), x start, the number of x pairs and the
    // pair element type, then the pairs (x offset, length), all in user units.
    if (!op.hasData)
        failOp("missing scan line data");
    const int lines = asInt(number(op, attr::NumberOfScanLines, 1));
    const uint8_t* p = op.data;
    const uint8_t* end = op.data + op.dataSize;
    auto u16 = [&](double& out) {
        if (end - p < 2)
            return false;
        out = m_streamLittle ? uint16_t(p[0] | p[1] << 8) : uint16_t(p[0] << 8 | p[1]);
        p += 2;
        return true;
    };
    auto s16 = [&](double& out) {
        if (end - p < 2)
            return false;
        out = m_streamLittle ? int16_t(p[0] | p[1] << 8) : int16_t(p[0] << 8 | p[1]);
        p += 2;
        return true;
    };
    Path path;
    const Point base = m_gs.cursor;
    const Matrix inv = m_gs.ctm.inverted().value_or(Matrix{});
    const Point baseUser = inv.apply(base);
    for (int line = 0; line < lines; ++line) {
        double dy = 0, x0 = 0, pairs = 0;
        if (!s16(dy) || !s16(x0) || !u16(pairs) || p >= end)
            failOp("scan line data shorter than NumberOfScanLines");
        const int type = *p++;
        double x = baseUser.x + x0;
        const double y = baseUser.y + dy;
        for (int i = 0; i < asInt(pairs); ++i) {
            double off = 0, len = 0;
            if (type == eUByte) {
                if (end - p < 2)
                    failOp("scan line data shorter than its pairs");
                off = p[0];
                len = p[1];
                p += 2;
            } else {
                if (!u16(off) || !u16(len))
                    failOp("scan line data shorter than its pairs");
            }
            x += off;
            if (len > 0) {
                path.moveTo(userToPage(x, y));
                path.lineTo(userToPage(x + len, y));
                path.lineTo(userToPage(x + len, y + 1));
                path.lineTo(userToPage(x, y + 1));
                path.close();
            }
            x += len;
        }
    }
    if (!path.empty() && m_gs.brush.kind != Paint::Kind::None) {
        m_dev.fillPath(path, FillRule::NonZero, m_gs.brush, m_gs.rs);
        drew();
    }
}

// ---------------------------------------------------------------- fonts and text

void Interpreter::endFontHeader() {
    m_inFontHeader = false;
    std::string error;
    std::shared_ptr<DownloadedFont> font = parseFontHeader(m_fontHeader, error);
    m_fontHeader.clear();
    if (!font)
        failOp(error);
    m_fonts[m_fontHeaderName] = std::move(font);
}

void Interpreter::readChar(const Operator& op) {
    const uint16_t code = asUInt16(need(op, attr::CharCode).number());
    const double size = need(op, attr::CharDataSize).number();
    if (!op.hasData || asSize(size) != op.dataSize)
        failOp("character data does not match CharDataSize");
    auto it = m_fonts.find(m_charFontName);
    if (it == m_fonts.end())
        failOp("character for a font that was not downloaded");
    std::string error;
    if (!addCharacter(*it->second, code, op.data, op.dataSize, error))
        failOp(error);
}

// A PCL font selection ("ESC ( 8U ESC ( s 1p 12v 0s 3b 4101T"): the resident font that fits
// the attributes best, at the height or pitch it asks for.
void Interpreter::selectPclFont(const std::string& selection) {
    FontRequest req;
    bool haveHeight = false, havePitch = false;
    size_t i = 0;
    auto number = [&](double& out) {
        const size_t start = i;
        while (i < selection.size() && (std::isdigit(static_cast<unsigned char>(selection[i])) || selection[i] == '.' ||
                                        selection[i] == '-' || selection[i] == '+'))
            ++i;
        out = start == i ? 0 : std::atof(selection.substr(start, i - start).c_str());
        return start != i;
    };
    while (i < selection.size()) {
        if (selection[i] != '\x1b' || i + 1 >= selection.size() || selection[i + 1] != '(') {
            ++i;
            continue;
        }
        i += 2;
        if (i < selection.size() && selection[i] == 's') {
            ++i;
            for (;;) {
                double v = 0;
                number(v);
                if (i >= selection.size())
                    break;
                const char c = selection[i++];
                const char lower = char(std::tolower(static_cast<unsigned char>(c)));
                if (lower == 'p')
                    req.proportional = v != 0;
                else if (lower == 'h') {
                    req.pitch = v;
                    havePitch = v > 0;
                } else if (lower == 'v') {
                    req.height = v;
                    haveHeight = v > 0;
                } else if (lower == 's')
                    req.style = asInt(v);
                else if (lower == 'b')
                    req.weight = asInt(v);
                else if (lower == 't')
                    req.typeface = asInt(v);
                if (std::isupper(static_cast<unsigned char>(c)))
                    break;
            }
        } else {
            double v = 0;
            if (number(v) && i < selection.size() && std::isupper(static_cast<unsigned char>(selection[i])))
                req.symbolSet = symbolSetId(std::clamp(asInt(v), 0, 2047), selection[i++]);
        }
    }
    if (!m_ctx.fonts)
        failOp("no resident fonts for PCLSelectFont");
    const int index = m_ctx.fonts->selectPcl(req);
    if (index < 0)
        failOp("no resident font fits PCLSelectFont");
    double points = haveHeight ? req.height : 12;
    if (!req.proportional && havePitch) {
        const double advance = m_ctx.fonts->metrics(index).fixedAdvance;
        points = 72.0 / req.pitch / (advance > 0 ? advance : 0.6);
    }
    if (!(points > 0) || points > 10000)
        failOp("unusable font size in PCLSelectFont");
    m_gs.residentIndex = index;
    m_gs.fontName = m_ctx.fonts->info(index).pclxlName;
    m_gs.charSize = points / 72.0 * m_unitsY;
    m_gs.symbolSet = req.symbolSet;
}

void Interpreter::text(const Operator& op, bool asPath) {
    const Value& data = need(op, attr::TextData);
    if (!data.isArray())
        failOp("TextData is not an array");
    const Value* xs = op.find(attr::XSpacingData);
    const Value* ys = op.find(attr::YSpacingData);
    if ((xs && !xs->isArray()) || (ys && !ys->isArray()))
        failOp("spacing data is not an array");
    TextRun run;
    run.codes.reserve(data.size());
    for (size_t i = 0; i < data.size(); ++i)
        run.codes.push_back(asUInt16(data.at(i)));
    if (xs)
        for (size_t i = 0; i < xs->size(); ++i)
            run.dx.push_back(xs->at(i));
    if (ys)
        for (size_t i = 0; i < ys->size(); ++i)
            run.dy.push_back(ys->at(i));
    if (m_gs.fontName.empty())
        failOp("no font selected");
    TextStyle style;
    style.ctm = m_gs.ctm;
    style.charSize = m_gs.charSize;
    style.scaleX = m_gs.charScaleX;
    style.scaleY = m_gs.charScaleY;
    style.shearX = m_gs.charShearX;
    style.shearY = m_gs.charShearY;
    style.angle = m_gs.charAngle;
    style.bold = m_gs.charBold;
    style.unitsPerInchX = m_unitsX;
    style.unitsPerInchY = m_unitsY;
    style.symbolSet = m_gs.symbolSet;
    style.residentIndex = m_gs.residentIndex;
    // TextPath collects the glyphs' pixels into the current path instead of drawing them.
    const size_t pathRects = m_path.points().size() / 4;
    GlyphOutlineCollector collector(m_dev, pathRects < 200000 ? 200000 - pathRects : 0);
    Device& target = asPath ? static_cast<Device&>(collector) : m_dev;
    Paint paint = asPath ? Paint::solid(Rgb::black()) : m_gs.brush;
    std::string problem;
    auto it = m_gs.residentIndex >= 0 ? m_fonts.end() : m_fonts.find(m_gs.fontName);
    Point cursor = m_gs.cursor;
    if (it != m_fonts.end()) {
        drawDownloadedText(*it->second, run, style, cursor, paint, m_gs.rs, target, problem);
    } else if (m_ctx.fonts) {
        if (!drawResidentText(*m_ctx.fonts, m_gs.fontName, run, style, cursor, paint, m_gs.rs, target, problem))
            warnOnce(problem);
        problem.clear();
    } else {
        if (!m_warnedNoFonts)
            warnOnce("no resident fonts available; text in \"" + m_gs.fontName + "\" skipped");
        m_warnedNoFonts = true;
        advanceWithoutGlyphs(run, style, cursor);
    }
    if (!problem.empty())
        warnOnce(problem);
    m_gs.cursor = cursor;
    if (asPath) {
        if (collector.truncated)
            warnOnce("TextPath outlines too large; part of the text left out of the path");
        m_path.append(collector.path);
        return;
    }
    if (paint.kind != Paint::Kind::None && !run.codes.empty())
        drew();
}

} // namespace qx::pclxl
