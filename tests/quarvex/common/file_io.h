// Whole-file reading and writing for the engine tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include <stdlib.h>

namespace qx::test {

inline std::string readFile(const std::filesystem::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& p, const std::string& data) {
    std::ofstream f(p, std::ios::binary);
    f << data;
}

// A fresh folder under /tmp named after prefix, removed with everything in it at the end of
// its scope; dir is empty when none could be made.
struct ScratchDir {
    std::filesystem::path dir;
    explicit ScratchDir(const std::string& prefix) {
        std::string tmpl = "/tmp/" + prefix + "_XXXXXX";
        if (char* d = mkdtemp(tmpl.data()))
            dir = d;
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!dir.empty())
            std::filesystem::remove_all(dir, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
};

} // namespace qx::test
