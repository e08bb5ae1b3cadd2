#include "input/pjl.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qx::input {

namespace {

std::string upper(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

// Splits a PJL command into words, "=" and ":" as words of their own, quoted strings whole
// (without their quotes).
std::vector<std::string> tokenize(std::string_view s) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        const char c = s[i];
        if (isSpace(c)) {
            ++i;
        } else if (c == '=' || c == ':') {
            out.emplace_back(1, c);
            ++i;
        } else if (c == '"') {
            const size_t close = s.find('"', i + 1);
            const size_t stop = close == std::string_view::npos ? s.size() : close;
            out.emplace_back(s.substr(i + 1, stop - i - 1));
            i = close == std::string_view::npos ? s.size() : close + 1;
        } else {
            size_t j = i;
            while (j < s.size() && !isSpace(s[j]) && s[j] != '=' && s[j] != ':' && s[j] != '"')
                ++j;
            out.emplace_back(s.substr(i, j - i));
            i = j;
        }
    }
    return out;
}

bool parseInt(const std::string& s, int& out) {
    if (s.empty())
        return false;
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (*end != '\0' || v < -1000000 || v > 1000000)
        return false;
    out = static_cast<int>(v);
    return true;
}

bool parseDouble(const std::string& s, double& out) {
    if (s.empty())
        return false;
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (*end != '\0' || !(v >= 0 && v <= 1e6))
        return false;
    out = v;
    return true;
}

bool startsWithPjl(const uint8_t* d, size_t n) {
    if (n < 4 || d[0] != '@')
        return false;
    return std::toupper(d[1]) == 'P' && std::toupper(d[2]) == 'J' && std::toupper(d[3]) == 'L' &&
           (n == 4 || isSpace(static_cast<char>(d[4])));
}

} // namespace

void PjlState::setVariable(PjlDefaults& t, const std::string& name, const std::string& value) {
    const std::string v = upper(value);
    int i = 0;
    double d = 0;
    if (name == "PAPER") {
        t.paper = v;
    } else if (name == "ORIENTATION") {
        if (v == "PORTRAIT" || v == "LANDSCAPE")
            t.orientation = v;
    } else if (name == "RESOLUTION") {
        if (parseInt(v, i) && i > 0)
            t.resolution = i;
    } else if (name == "FORMLINES") {
        if (parseInt(v, i) && i > 0)
            t.formLines = i;
    } else if (name == "FONTSOURCE") {
        t.fontSource = v;
    } else if (name == "FONTNUMBER") {
        if (parseInt(v, i) && i >= 0)
            t.fontNumber = i;
    } else if (name == "PITCH") {
        if (parseDouble(v, d) && d > 0)
            t.pitch = d;
    } else if (name == "PTSIZE") {
        if (parseDouble(v, d) && d > 0)
            t.pointSize = d;
    } else if (name == "SYMSET") {
        t.symbolSet = v;
    }
    // Other variables (COPIES, ECONOMODE, JOBNAME, ...) do not change how pages look.
}

std::string PjlState::apply(std::string_view line) {
    std::vector<std::string> words = tokenize(line);
    if (words.empty() || upper(words[0]) != "@PJL")
        return {};
    if (words.size() < 2)
        return {};
    const std::string command = upper(words[1]);

    if (command == "ENTER") {
        // ENTER LANGUAGE = name
        for (size_t k = 2; k + 2 < words.size(); ++k) {
            if (upper(words[k]) == "LANGUAGE" && words[k + 1] == "=")
                return upper(words[k + 2]);
        }
        return {};
    }
    if (command == "EOJ") {
        endJob();
        return {};
    }
    if (command == "RESET" || command == "INITIALIZE") {
        if (command == "INITIALIZE")
            m_defaults = PjlDefaults{};
        m_current = m_defaults;
        return {};
    }
    if (command == "SET" || command == "DEFAULT") {
        size_t k = 2;
        // LPARM : personality, or IPARM : port: the variable follows.
        if (k < words.size() && (upper(words[k]) == "LPARM" || upper(words[k]) == "IPARM")) {
            const std::string scope = upper(words[k]);
            k += 1;
            if (k < words.size() && words[k] == ":")
                ++k;
            std::string personality = k < words.size() ? upper(words[k]) : std::string();
            ++k;
            if (scope == "IPARM" || (personality != "PCL" && personality != "PCLXL"))
                return {};
        }
        if (k + 2 >= words.size() || words[k + 1] != "=")
            return {};
        const std::string name = upper(words[k]);
        const std::string& value = words[k + 2];
        if (command == "DEFAULT")
            setVariable(m_defaults, name, value);
        setVariable(m_current, name, value);
        return {};
    }
    return {};
}

PjlState::Lines PjlState::parseLines(const uint8_t* data, size_t size, size_t pos) {
    Lines result;
    result.end = pos;
    size_t p = pos;
    while (true) {
        size_t q = p;
        while (q < size && isSpace(static_cast<char>(data[q])))
            ++q;
        if (q >= size || !startsWithPjl(data + q, size - q)) {
            // Blank lines that lead nowhere but the end belong to the PJL part.
            if (q >= size && result.commands > 0)
                result.end = size;
            break;
        }
        // A PJL line ends at its line feed, or at a carriage return that no line feed follows;
        // an escape inside it (a UEL with no line end before it) ends it too.
        size_t textEnd = q;
        while (textEnd < size && data[textEnd] != '\n' && data[textEnd] != '\r' && data[textEnd] != 0x1b)
            ++textEnd;
        size_t next = textEnd;
        if (next < size && data[next] == '\r')
            ++next;
        if (next < size && data[next] == '\n')
            ++next;
        const bool esc = textEnd < size && data[textEnd] == 0x1b;
        // Only the first few kilobytes of a line matter; the rest is skipped, not copied.
        const size_t keep = std::min<size_t>(textEnd - q, 4096);
        const std::string_view line(reinterpret_cast<const char*>(data + q), keep);
        ++result.commands;
        const std::string language = apply(line);
        p = esc ? textEnd : next;
        result.end = p;
        if (!language.empty()) {
            result.language = language;
            break;
        }
    }
    return result;
}

} // namespace qx::input
