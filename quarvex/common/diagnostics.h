#pragma once
// Messages of one conversion run. Every message is one line on standard error in the form
// "quarvex: INPUT: message"; warnings also decide the exit status (3: written with warnings).

#include <string>
#include <vector>

namespace qx {

class Diagnostics {
public:
    explicit Diagnostics(std::string inputName = {}, bool echo = true);

    // Something was skipped, truncated or damaged; the conversion goes on.
    void warning(const std::string& message);
    // Something the run cannot get past; the caller decides what follows.
    void error(const std::string& message);

    bool hasWarnings() const { return m_warnings > 0; }
    bool hasErrors() const { return m_errors > 0; }
    const std::vector<std::string>& lines() const { return m_lines; }

private:
    void emit(const std::string& message);

    std::string m_input;
    bool m_echo;
    int m_warnings = 0;
    int m_errors = 0;
    std::vector<std::string> m_lines;
};

} // namespace qx
