#pragma once
// The quarvex command line:  quarvex [OPTION VALUE]... -o OUTPUT -i INPUT

#include <string>
#include <vector>

namespace qx::cli {

struct Options {
    std::string input;
    std::string output;
    int dpiX = 0;            // -r; 0 = not given
    int dpiY = 0;
    int depth = 24;          // -b
    bool depthGiven = false;
    int compression = 6;     // -c
    bool compressionGiven = false;
    int pageWidth = 0;       // -gw; 0 = not given
    int pageHeight = 0;      // -gh; 0 = not given
    int fax = -1;            // -faxtif; -1 = not given
    bool writeLocal = false; // -writelocal y

    // Options that -faxtif overrides, one message each (usage form, no input name).
    std::vector<std::string> warnings;
};

struct ParseResult {
    enum class Status { Ok, Help, Version, UsageError };
    Status status = Status::Ok;
    Options options;
    std::string error; // for UsageError: the message line without the "quarvex: " prefix
};

// args: the arguments after the program name.
ParseResult parseOptions(const std::vector<std::string>& args);

// The full text of --help and of --version.
std::string usageText();
std::string versionText();

// Limits of the numeric options.
inline constexpr int kMaxDpi = 2400;
inline constexpr int kMaxPagePixels = 65000;

} // namespace qx::cli
