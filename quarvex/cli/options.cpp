#include "cli/options.h"

#include <array>
#include <cstdint>

#ifndef QX_VERSION
#define QX_VERSION "0.0.0"
#endif

namespace qx::cli {

namespace {

constexpr std::array<const char*, 8> kValueOptions = {"-i", "-o", "-r", "-b", "-c", "-gw", "-gh", "-faxtif"};

bool isOptionName(const std::string& s) {
    if (s == "-writelocal" || s == "-h" || s == "--help" || s == "--version")
        return true;
    for (const char* o : kValueOptions)
        if (s == o)
            return true;
    return false;
}

// Decimal digits only (no sign, no blanks), at most 9 of them; false otherwise.
bool parseCount(const std::string& s, int& out) {
    if (s.empty() || s.size() > 9)
        return false;
    int64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + (c - '0');
    }
    out = static_cast<int>(v);
    return true;
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

} // namespace

std::string versionText() { return std::string("quarvex ") + QX_VERSION + "\n"; }

std::string usageText() {
    return "Usage: quarvex [OPTION VALUE]... -o OUTPUT -i INPUT\n"
           "Convert a PCL 5, PCL XL or PJL print file into a multi-page TIFF file.\n"
           "The printer language is recognised from the file's content.\n"
           "\n"
           "  -i INPUT         the print file to convert (required)\n"
           "  -o OUTPUT        the TIFF file to write (required)\n"
           "  -r XxY           resolution in dots per inch, 1 to 2400 each, e.g. 300x300\n"
           "                   (default: what the job declares, else 300x300)\n"
           "  -b 1|8|24        1 = black and white, 8 = grey, 24 = RGB colour (default 24)\n"
           "  -c 0..7          compression: 0 none, 1 PackBits, 2 LZW, 3 LZW with horizontal\n"
           "                   predictor, 4 CCITT G3 1-D, 5 CCITT G3 2-D, 6 Deflate (default),\n"
           "                   7 CCITT G4; 4, 5 and 7 need -b 1\n"
           "  -gw PIXELS       width of every page, 1 to 65000 (default: the page's own)\n"
           "  -gh PIXELS       height of every page, 1 to 65000 (default: the page's own);\n"
           "                   with only one of -gw/-gh the other keeps the page's proportions\n"
           "  -faxtif 0|1      fax TIFF (Class F), 1728 pixels wide: 0 = 204x98 dpi,\n"
           "                   1 = 204x196 dpi; -b, -r, -gw, -gh and -c other than 4, 5, 7\n"
           "                   are then ignored\n"
           "  -writelocal y|n  y: write the output into the input's folder, under the file\n"
           "                   name of -o (default n)\n"
           "  -h, --help       show this help and exit\n"
           "  --version        show the version and exit\n"
           "\n"
           "The output appears only when the conversion has finished.\n"
           "Resident fonts are taken from the folder named by PCLFONTSOURCE, then from\n"
           "../fonts/ beside this program, then from fontconfig.\n"
           "Exit status: 0 converted; 1 nothing written (input missing, unreadable, of an\n"
           "unsupported kind or without pages, or output not writable); 2 usage error;\n"
           "3 written with warnings (damaged or truncated input, skipped features or jobs,\n"
           "options that -faxtif overrides).\n";
}

ParseResult parseOptions(const std::vector<std::string>& args) {
    ParseResult r;
    Options& o = r.options;
    bool haveInput = false, haveOutput = false;
    auto usage = [&r](std::string message) {
        r.status = ParseResult::Status::UsageError;
        r.error = std::move(message) + " (see quarvex --help)";
        return r;
    };

    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& name = args[i];
        if (name == "-h" || name == "--help") {
            r.status = ParseResult::Status::Help;
            return r;
        }
        if (name == "--version") {
            r.status = ParseResult::Status::Version;
            return r;
        }
        if (!isOptionName(name)) {
            if (!name.empty() && name[0] == '-')
                return usage("unknown option " + quoted(name));
            return usage("unexpected argument " + quoted(name));
        }
        // Every other option takes a value, the next argument. An option name there means
        // the value was left out.
        if (i + 1 >= args.size() || isOptionName(args[i + 1]))
            return usage("missing value after " + name);
        const std::string& value = args[++i];
        int n = 0;

        if (name == "-i") {
            if (value.empty())
                return usage("-i: the input path is empty");
            o.input = value;
            haveInput = true;
        } else if (name == "-o") {
            if (value.empty())
                return usage("-o: the output path is empty");
            o.output = value;
            haveOutput = true;
        } else if (name == "-r") {
            const auto x = value.find_first_of("xX");
            int rx = 0, ry = 0;
            if (x == std::string::npos || !parseCount(value.substr(0, x), rx) ||
                !parseCount(value.substr(x + 1), ry))
                return usage("-r " + quoted(value) + ": expected XxY, two whole numbers such as 300x300");
            if (rx < 1 || ry < 1 || rx > kMaxDpi || ry > kMaxDpi)
                return usage("-r " + quoted(value) + ": resolution must be 1 to 2400 dpi on each axis");
            o.dpiX = rx;
            o.dpiY = ry;
        } else if (name == "-b") {
            if (!parseCount(value, n) || (n != 1 && n != 8 && n != 24))
                return usage("-b " + quoted(value) + ": expected 1, 8 or 24");
            o.depth = n;
            o.depthGiven = true;
        } else if (name == "-c") {
            if (!parseCount(value, n) || n > 7)
                return usage("-c " + quoted(value) + ": expected a compression number from 0 to 7");
            o.compression = n;
            o.compressionGiven = true;
        } else if (name == "-gw" || name == "-gh") {
            if (!parseCount(value, n) || n < 1 || n > kMaxPagePixels)
                return usage(name + " " + quoted(value) + ": expected a page size of 1 to 65000 pixels");
            (name == "-gw" ? o.pageWidth : o.pageHeight) = n;
        } else if (name == "-faxtif") {
            if (value != "0" && value != "1")
                return usage("-faxtif " + quoted(value) + ": expected 0 (204x98 dpi) or 1 (204x196 dpi)");
            o.fax = value == "1" ? 1 : 0;
        } else if (name == "-writelocal") {
            if (value == "y" || value == "Y")
                o.writeLocal = true;
            else if (value == "n" || value == "N")
                o.writeLocal = false;
            else
                return usage("-writelocal " + quoted(value) + ": expected y or n");
        }
    }

    if (!haveOutput)
        return usage("missing -o OUTPUT");
    if (!haveInput)
        return usage("missing -i INPUT");

    const bool ccitt = o.compression == 4 || o.compression == 5 || o.compression == 7;
    if (o.fax >= 0) {
        // Class F fixes depth, resolution and width; only the CCITT choice is the caller's.
        if (o.depthGiven && o.depth != 1)
            o.warnings.push_back("-b " + std::to_string(o.depth) + " ignored: -faxtif pages are black and white");
        if (o.dpiX > 0)
            o.warnings.push_back("-r " + std::to_string(o.dpiX) + "x" + std::to_string(o.dpiY) +
                                 " ignored: -faxtif fixes the resolution");
        if (o.pageWidth > 0)
            o.warnings.push_back("-gw " + std::to_string(o.pageWidth) + " ignored: -faxtif pages are 1728 pixels wide");
        if (o.pageHeight > 0)
            o.warnings.push_back("-gh " + std::to_string(o.pageHeight) + " ignored: -faxtif sets the page height");
        if (o.compressionGiven && !ccitt)
            o.warnings.push_back("-c " + std::to_string(o.compression) +
                                 " ignored: -faxtif uses CCITT Group 3 one-dimensional compression");
        o.depth = 1;
        o.dpiX = o.dpiY = 0;
        o.pageWidth = o.pageHeight = 0;
        if (!ccitt)
            o.compression = 4;
    } else if (ccitt && o.depth != 1) {
        return usage("-c " + std::to_string(o.compression) + ": CCITT compression needs -b 1, not -b " +
                     std::to_string(o.depth));
    }
    r.status = ParseResult::Status::Ok;
    return r;
}

} // namespace qx::cli
