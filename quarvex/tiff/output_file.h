#pragma once
// Writing an output file so that it appears under its name only when it is complete: the data
// goes to a hidden temporary file in the same folder, which is renamed over the output at the
// end. A failed run, or one ended by SIGINT, SIGTERM or SIGHUP, removes the temporary file, so
// neither a partial output nor a stray temporary file is left behind, and an existing output is
// replaced only by a finished one.

#include <string>

namespace qx::tiff {

class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile(); // removes the temporary file unless commit() succeeded
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Creates the temporary file beside target. false: see error().
    bool create(const std::string& target);
    const std::string& tempPath() const { return m_temp; }
    const std::string& target() const { return m_target; }

    // Gives the temporary file the usual permissions and renames it over the target.
    bool commit();
    // Removes the temporary file.
    void discard();

    const std::string& error() const { return m_error; }

    // Installs the handlers for SIGINT, SIGTERM and SIGHUP that remove the temporary file of the
    // active OutputFile before the process ends. Called by create(); safe to call again.
    static void installSignalCleanup();

private:
    std::string m_target;
    std::string m_temp;
    std::string m_error;
    bool m_active = false;
};

// The folder part of a path ("." when it has none) and the file name part.
std::string folderOf(const std::string& path);
std::string fileNameOf(const std::string& path);

// True when output names the same file as input: the same device and inode when the output
// exists, else the same canonical path.
bool namesSameFile(const std::string& input, const std::string& output);

} // namespace qx::tiff
