// Whole-file reading and writing for the engine tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace qx::test {

inline std::string readFile(const std::filesystem::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& p, const std::string& data) {
    std::ofstream f(p, std::ios::binary);
    f << data;
}

} // namespace qx::test
