#include "pcl5/parser.h"

#include <climits>
#include <cmath>

namespace qx::pcl5 {

namespace {
constexpr uint8_t ESC = 0x1B;
bool isDigit(uint8_t c) { return c >= '0' && c <= '9'; }
bool isGroupChar(uint8_t c) { return c >= 0x60 && c <= 0x7E; }
bool isFinalUpper(uint8_t c) { return c >= 0x40 && c <= 0x5E; }
bool isParamChar(uint8_t c) { return c >= 0x21 && c <= 0x2F; }
// Value fields are kept within what printers accept; longer digit strings are read but ignored.
constexpr double kValueLimit = 1e9;
} // namespace

int Command::intValue() const {
    const double v = std::trunc(value);
    if (v >= INT_MAX)
        return INT_MAX;
    if (v <= INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

void Parser::setPosition(size_t pos) {
    m_pos = pos > m_size ? m_size : pos;
    m_inCombined = false;
}

std::span<const uint8_t> Parser::takeData(size_t n) {
    const size_t avail = m_size - m_pos;
    const size_t take = n < avail ? n : avail;
    std::span<const uint8_t> out(m_data + m_pos, take);
    m_pos += take;
    if (take < n)
        m_truncated = true;
    return out;
}

// Reads "[+|-]digits[.digits]" followed by a parameter character into cmd. false: malformed or
// truncated (the position is left where parsing stopped).
bool Parser::parseValueField(Command& cmd) {
    cmd.value = 0;
    cmd.hasValue = false;
    cmd.sign = 0;
    if (m_pos < m_size && (m_data[m_pos] == '+' || m_data[m_pos] == '-'))
        cmd.sign = static_cast<char>(m_data[m_pos++]);
    double v = 0;
    while (m_pos < m_size && isDigit(m_data[m_pos])) {
        if (v < kValueLimit)
            v = v * 10 + (m_data[m_pos] - '0');
        cmd.hasValue = true;
        ++m_pos;
    }
    if (m_pos < m_size && m_data[m_pos] == '.') {
        ++m_pos;
        double scale = 0.1;
        while (m_pos < m_size && isDigit(m_data[m_pos])) {
            v += (m_data[m_pos] - '0') * scale;
            scale *= 0.1;
            cmd.hasValue = true;
            ++m_pos;
        }
    }
    cmd.value = cmd.sign == '-' ? -v : v;
    if (m_pos >= m_size) {
        m_truncated = true;
        return false;
    }
    const uint8_t c = m_data[m_pos];
    if (isGroupChar(c)) {
        cmd.final = static_cast<uint8_t>(c - 0x20);
        m_inCombined = true;
        ++m_pos;
        return true;
    }
    if (isFinalUpper(c)) {
        cmd.final = c;
        m_inCombined = false;
        ++m_pos;
        return true;
    }
    return false;
}

Command Parser::next(size_t maxText) {
    Command cmd;
    if (m_inCombined) {
        cmd.kind = Command::Kind::Param;
        cmd.parameter = m_parameter;
        cmd.group = m_group;
        cmd.offset = m_seqStart;
        if (parseValueField(cmd))
            return cmd;
        m_inCombined = false;
        if (!m_truncated)
            ++m_malformed;
        // Fall through: the offending byte is read again as ordinary data.
    }
    for (;;) {
        if (m_pos >= m_size) {
            cmd = Command{};
            cmd.kind = Command::Kind::End;
            cmd.offset = m_size;
            return cmd;
        }
        if (m_data[m_pos] != ESC) {
            const size_t start = m_pos;
            size_t end = start;
            const size_t limit = maxText == 0 ? 1 : maxText;
            while (end < m_size && m_data[end] != ESC && end - start < limit)
                ++end;
            m_pos = end;
            cmd = Command{};
            cmd.kind = Command::Kind::Text;
            cmd.text = m_data + start;
            cmd.textLength = end - start;
            cmd.offset = start;
            return cmd;
        }
        const size_t start = m_pos;
        if (m_pos + 1 >= m_size) {
            m_pos = m_size;
            m_truncated = true;
            continue;
        }
        const uint8_t c1 = m_data[m_pos + 1];
        if (c1 >= 0x30 && c1 <= 0x7E) {
            m_pos += 2;
            cmd = Command{};
            cmd.kind = Command::Kind::Escape2;
            cmd.final = c1;
            cmd.offset = start;
            return cmd;
        }
        if (!isParamChar(c1)) {
            // ESC followed by something that starts no sequence: drop the ESC.
            ++m_malformed;
            ++m_pos;
            continue;
        }
        m_pos += 2;
        cmd = Command{};
        cmd.kind = Command::Kind::Param;
        cmd.parameter = c1;
        cmd.offset = start;
        if (m_pos < m_size && isGroupChar(m_data[m_pos])) {
            cmd.group = m_data[m_pos];
            ++m_pos;
        }
        m_parameter = cmd.parameter;
        m_group = cmd.group;
        m_seqStart = start;
        if (parseValueField(cmd))
            return cmd;
        if (!m_truncated)
            ++m_malformed;
        m_inCombined = false;
    }
}

} // namespace qx::pcl5
