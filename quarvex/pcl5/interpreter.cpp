// The PCL 5 interpreter's command loop: reset and the default environment, and the dispatch of
// each command to the part of the interpreter that acts on it (page and cursor, text, downloaded
// fonts, rectangles and patterns, colour, raster, HP-GL/2, macros).
#include "pcl5/interpreter.h"

#include "common/diagnostics.h"
#include "pcl5/units.h"

#include <algorithm>
#include <cstdint>

namespace qx::pcl5 {

Interpreter::Interpreter(JobContext& ctx) : m_ctx(ctx), m_dev(ctx.device), m_fonts(ctx.fonts) {
    m_paper = *paperByCode(2);
    reset();
}

Interpreter::~Interpreter() = default;

void Interpreter::warnOnce(const std::string& message) {
    if (std::find(m_warned.begin(), m_warned.end(), message) != m_warned.end())
        return;
    m_warned.push_back(message);
    m_ctx.diag.warning(message);
}

// ---------------------------------------------------------------------------------------------
// Reset and the default environment

void Interpreter::reset() {
    if (m_raster.active)
        endRaster();
    const PjlDefaults& pjl = m_ctx.pjl;
    PaperSize paper = *paperByCode(2);
    if (!pjl.paper.empty()) {
        if (auto p = paperByName(pjl.paper))
            paper = *p;
    }
    int orientation = 0;
    if (!pjl.orientation.empty() && (pjl.orientation[0] == 'L' || pjl.orientation[0] == 'l'))
        orientation = 1;
    m_regLeft = 0;
    m_regTop = 0;
    m_duplex = 0;
    m_backSide = false;
    m_cursorStack.clear();
    m_userPatterns.clear();
    m_raster = RasterState{};
    m_displayFunctions = false;
    fontControl(1); // a reset deletes the temporary downloaded fonts
    resetMacros();
    defaultEnvironment();
    applyPageSetup(paper, orientation);
}

void Interpreter::defaultEnvironment() {
    const PjlDefaults& pjl = m_ctx.pjl;
    m_unitsPerInch = 300;
    m_perfSkip = true;
    m_wrap = false;
    m_lineTermination = 0;
    m_textPath = 0;
    m_underline = false;
    m_rectWidth = m_rectHeight = 0;
    m_patternId = 0;
    m_currentPatternType = 0;
    m_currentPatternId = 0;
    m_rop = 252;
    m_sourceTransparent = true;
    m_patternTransparent = true;
    m_patternRefX = m_patternRefY = 0;
    m_patternRotates = true;
    m_simpleColour = 0;
    m_pixelEncoding = 0;
    m_bitsPerIndex = 1;
    m_colourSpaceCmy = false;
    defaultPalette();
    m_foreground = -1;
    m_foregroundRgb = Rgb::black();
    m_rasterResolution = 75;
    m_compression = 0;
    m_presentation = 0;
    m_destWidth = m_destHeight = 0;
    m_frameWidth = m_frameHeight = 0;
    m_plotWidth = m_plotHeight = 0;
    m_frameAnchorX = 0;
    m_frameAnchorY = -1;

    // The default font: Courier 10 pitch 12 point Roman-8, or what PJL set.
    FontRequest rq;
    if (pjl.fontNumber >= 0 && m_fonts && (pjl.fontSource.empty() || pjl.fontSource == "I")) {
        const int idx = m_fonts->selectByNumber(pjl.fontNumber);
        if (idx >= 0) {
            const ResidentFontInfo& info = m_fonts->info(idx);
            rq.typeface = info.typeface;
            rq.proportional = info.proportional;
            rq.weight = info.bold ? 3 : 0;
            rq.style = info.italic ? 1 : 0;
        }
    }
    if (pjl.pitch > 0)
        rq.pitch = std::clamp(pjl.pitch, 0.44, 99.99);
    if (pjl.pointSize > 0)
        rq.height = std::clamp(pjl.pointSize, 4.0, 999.75);
    if (!pjl.symbolSet.empty())
        if (auto s = parseSymbolSet(pjl.symbolSet))
            rq.symbolSet = *s;
    m_primary = FontState{};
    m_primary.request = rq;
    m_secondary = m_primary;
    m_secondaryActive = false;
}

void Interpreter::handleEscape2(uint8_t c) {
    switch (c) {
    case 'E': // reset
        if (m_macroDepth > 0)
            break; // not from inside a macro
        ejectPage();
        reset();
        m_inHpgl = false;
        if (m_gl) {
            m_gl->reset();
            updatePictureFrame();
        }
        break;
    case '9': // clear horizontal margins
        m_leftMargin = 0;
        m_rightMargin = frameWidth();
        break;
    case '=': // half line feed
        m_y = clampPos(m_y + m_vmi / 2);
        break;
    case 'Y': m_displayFunctions = true; break;
    case 'Z': m_displayFunctions = false; break;
    case 'z': break; // self test
    default: break;
    }
}

void Interpreter::handleParam(Parser& parser, const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;

    if (carriesData(cmd)) {
        handleDataCommand(parser, cmd);
        return;
    }
    if (p == '(' || p == ')') {
        handleFontCommand(cmd, p == ')');
        return;
    }
    if (p == '&') {
        switch (g) {
        case 'l': pageCommand(cmd); return;
        case 'a': case 'u': cursorCommand(cmd); return;
        case 'k': case 'd': textCommand(cmd); return;
        case 'c':
            if (f == 'T')
                textCommand(cmd);
            return;
        case 's':
            if (f == 'C')
                textCommand(cmd);
            return;
        case 'f':
            if (f == 'Y')
                m_macroId = cmd.intValue();
            else if (f == 'X')
                macroControl(cmd.intValue());
            else if (f == 'S')
                cursorCommand(cmd);
            else if (f == 'I' || f == 'J')
                setCustomPaperDimension(f, cmd.value);
            return;
        default: return;
        }
    }
    if (p != '*')
        return;
    switch (g) {
    case 'p': cursorCommand(cmd); return;
    case 'c':
        switch (f) {
        case 'D': case 'E': case 'F': softFontCommand(cmd); return;
        case 'X': case 'Y': case 'T': case 'K': case 'L': pictureFrameCommand(cmd); return;
        default: rectangleCommand(cmd); return;
        }
    case 't': case 'r': case 'b': rasterCommand(parser, cmd); return;
    case 'v':
        if (f == 'N' || f == 'O' || f == 'T')
            patternCommand(cmd);
        else
            colourCommand(cmd);
        return;
    case 'l':
        if (f == 'O')
            patternCommand(cmd);
        return;
    default: return;
    }
}

bool Interpreter::carriesData(const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    return (f == 'W' && !(p == '&' && g == 'k')) || (p == '&' && g == 'p' && f == 'X');
}

void Interpreter::handleDataCommand(Parser& parser, const Command& cmd) {
    const uint8_t p = cmd.parameter, g = cmd.group, f = cmd.final;
    const int count = std::max(0, cmd.intValue());
    std::span<const uint8_t> data = parser.takeData(static_cast<size_t>(count));
    if (data.size() < static_cast<size_t>(count))
        warnOnce("PCL 5: data of a command is cut short (truncated input)");

    if (p == '*' && g == 'b')
        rasterData(data, f == 'W');
    else if (p == '*' && g == 'v' && f == 'W')
        configureImageData(data);
    else if (p == '&' && g == 'p' && f == 'X')
        for (uint8_t c : data)
            printCode(c);
    else if (p == '*' && g == 'c' && f == 'W')
        defineUserPattern(data);
    else if (p == ')' && g == 's' && f == 'W')
        defineFont(data);
    else if (p == '(' && g == 's' && f == 'W')
        defineCharacter(data);
    // Everything else that carries data (configurations, palettes, lookup tables) is skipped.
}


size_t Interpreter::run(const uint8_t* data, size_t size) {
    // Macros may run 2 MB of commands, plus 16 times the job's size: overlays on every page of a
    // long job, but no endless repetition from a short one.
    m_macroWorkBudget = (size_t(2) << 20) + 16 * size;
    const size_t used = interpret(data, size);
    if (m_raster.active)
        endRaster();
    closePage();
    return used;
}

size_t Interpreter::interpret(const uint8_t* data, size_t size) {
    Parser parser(data, size);
    size_t stop = size;
    // A macro definition being stored: where its body starts (kNotDefining: none).
    constexpr size_t kNotDefining = SIZE_MAX;
    size_t defineFrom = kNotDefining;
    for (;;) {
        if (m_inHpgl && defineFrom == kNotDefining) {
            const size_t at = parser.position();
            parser.setPosition(at + m_gl->run(data + at, size - at));
            if (parser.atEnd())
                break;
        }
        if (m_displayFunctions && defineFrom == kNotDefining && !m_inHpgl) {
            parser.setPosition(printDisplayFunctions(data, parser.position(), size));
            if (parser.atEnd())
                break;
        }
        const Command cmd = parser.next();
        if (cmd.kind == Command::Kind::End)
            break;
        if (cmd.kind == Command::Kind::Param && cmd.parameter == '%' && cmd.group == 0 && cmd.final == 'X' &&
            cmd.value == -12345) {
            stop = cmd.offset;
            break;
        }
        if (defineFrom != kNotDefining) {
            // Inside a definition nothing runs: commands are only stepped over, with their data,
            // up to the end of the definition.
            if (cmd.is('&', 'f', 'X') && cmd.intValue() == 1) {
                const size_t end = std::max(defineFrom, cmd.offset);
                defineMacro(std::vector<uint8_t>(data + defineFrom, data + end));
                defineFrom = kNotDefining;
            } else if (cmd.kind == Command::Kind::Param && carriesData(cmd)) {
                parser.takeData(static_cast<size_t>(std::max(0, cmd.intValue())));
            }
            continue;
        }
        if (m_inHpgl) {
            // Inside HP-GL/2 only the way back to PCL and a reset count.
            const bool leave = (cmd.kind == Command::Kind::Escape2 && cmd.final == 'E') ||
                               (cmd.kind == Command::Kind::Param && cmd.parameter == '%' && cmd.group == 0 &&
                                cmd.final == 'A');
            if (!leave)
                continue;
        }
        if (cmd.kind == Command::Kind::Text) {
            handleText(cmd.text, cmd.textLength);
            continue;
        }
        if (cmd.kind == Command::Kind::Escape2) {
            handleEscape2(cmd.final);
            continue;
        }
        if (cmd.parameter == '%' && cmd.group == 0) {
            if (cmd.final == 'B')
                enterHpgl(cmd.intValue());
            else if (cmd.final == 'A')
                leaveHpgl(cmd.intValue());
            continue;
        }
        if (cmd.is('&', 'f', 'X') && cmd.intValue() == 0) {
            defineFrom = parser.position();
            continue;
        }
        handleParam(parser, cmd);
    }
    if (defineFrom != kNotDefining)
        warnOnce("PCL 5: a macro definition has no end; it is dropped");
    if (parser.truncated())
        warnOnce("PCL 5: the data ends inside a command (truncated input)");
    if (parser.malformed() > 0)
        warnOnce("PCL 5: malformed escape sequences skipped");
    return stop;
}

} // namespace qx::pcl5

