// PCL XL fonts and text: downloaded font headers and characters, PCL font selections, and
// drawing text or adding it to the path.
#include "pclxl/interpreter.h"
#include "pclxl/operator_args.h"

#include "fonts/font_library.h"
#include "pclxl/downloaded_font.h"
#include "pclxl/text_render.h"

#include <cctype>

namespace qx::pclxl {

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
