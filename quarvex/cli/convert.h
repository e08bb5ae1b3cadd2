#pragma once
// One conversion run: reads the input, converts every job and writes the TIFF file.

#include "cli/options.h"

namespace qx::cli {

enum ExitStatus : int {
    kConverted = 0,
    kNothingWritten = 1,
    kUsageError = 2,
    kWrittenWithWarnings = 3,
};

// Runs the conversion that the options describe; messages go to standard error.
int convert(const Options& options);

// The whole program: parses args (without the program name) and converts.
int runCommandLine(const std::vector<std::string>& args);

} // namespace qx::cli
