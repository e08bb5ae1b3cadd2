#pragma once
// Writing an output file so that it appears under its name only when it is complete.
//
// Where the system allows it, the data goes to an unnamed file in the output's folder
// (O_TMPFILE): it has no name at all until commit() links it in, so a run that is killed in
// any way - SIGKILL included - leaves nothing behind. Elsewhere it goes to a hidden temporary
// file in the same folder, removed on failure, by the handlers for SIGINT, SIGTERM, SIGHUP
// and SIGQUIT, and by those for the crash signals. Either way commit() renames the finished file over the output, so an existing
// output is replaced only by a finished one.

#include <string>

namespace qx::tiff {

class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile(); // discards the data unless commit() succeeded
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Prepares the file that will become target. allowUnnamed = false always uses a named
    // temporary file. false: see error().
    bool create(const std::string& target, bool allowUnnamed = true);

    // The open file to write; stays owned by this object.
    int fd() const { return m_fd; }
    // The temporary file's path; empty while the file has no name.
    const std::string& tempPath() const { return m_temp; }
    const std::string& target() const { return m_target; }

    // Flushes the data to disk, gives the file the usual permissions and puts it in place of
    // the target.
    bool commit();
    // Drops the data.
    void discard();

    const std::string& error() const { return m_error; }

    // Installs the handlers for the stop and crash signals that remove the temporary file of
    // the active OutputFile before the process ends. Called by create(); safe to call again.
    static void installSignalCleanup();

private:
    bool createNamed(const std::string& pattern);
    bool linkUnnamed();

    std::string m_target;
    std::string m_temp;
    std::string m_error;
    int m_fd = -1;
    bool m_active = false;
};

// The folder part of a path ("." when it has none) and the file name part.
std::string folderOf(const std::string& path);
std::string fileNameOf(const std::string& path);

// True when output names the same file as input: the same device and inode when the output
// exists, else the same canonical path.
bool namesSameFile(const std::string& input, const std::string& output);

} // namespace qx::tiff
