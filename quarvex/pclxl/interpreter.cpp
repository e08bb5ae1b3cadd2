// The PCL XL interpreter's operator loop: running a stream, and the dispatcher that carries out
// each operator or hands it to the page, colour, path, image and text code.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

#include "common/diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qx::pclxl {

namespace {

constexpr int kMaxGsDepth = 64;
// Operators run from user-defined streams; streams that call each other can multiply.
constexpr long kMaxStreamOperators = 5000000;
constexpr int kMaxStreamDepth = 4;

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

} // namespace qx::pclxl
