// PCL XL session and page operators: the session's units of measure, the page's media, size,
// orientation and starting state, and ejecting it.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

#include <cctype>

namespace qx::pclxl {

namespace {

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

} // namespace

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

} // namespace qx::pclxl
