#include "common/diagnostics.h"

#include <cstdio>

namespace qx {

Diagnostics::Diagnostics(std::string inputName, bool echo)
    : m_input(std::move(inputName)), m_echo(echo) {}

void Diagnostics::warning(const std::string& message) {
    ++m_warnings;
    emit(message);
}

void Diagnostics::error(const std::string& message) {
    ++m_errors;
    emit(message);
}

void Diagnostics::emit(const std::string& message) {
    // The same complaint about every row of a damaged image helps nobody: keep the first few.
    static constexpr size_t kMaxLines = 50;
    if (m_lines.size() >= kMaxLines)
        return;
    std::string line = "quarvex: ";
    if (!m_input.empty())
        line += m_input + ": ";
    line += message;
    m_lines.push_back(line);
    if (m_echo)
        std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace qx
