#include "hpgl2/reader.h"

#include "hpgl2/hpgl2.h"

#include <cmath>

namespace qx::hpgl2 {

namespace {
constexpr uint8_t kEsc = 0x1B;
// Values beyond this are no coordinates any page could hold; they are clamped so that the
// arithmetic that follows stays finite.
constexpr double kMaxValue = 1e9;
} // namespace

bool Reader::nextMnemonic(char& a, char& b) {
    while (m_pos < m_size) {
        const uint8_t c = m_data[m_pos];
        if (c == kEsc)
            return false;
        if (isLetter(c)) {
            // The second letter may follow directly; anything else makes the first one stray.
            if (m_pos + 1 < m_size && isLetter(m_data[m_pos + 1])) {
                a = static_cast<char>(c & ~0x20);
                b = static_cast<char>(m_data[m_pos + 1] & ~0x20);
                m_pos += 2;
                return true;
            }
            ++m_stray;
            ++m_pos;
            continue;
        }
        if (!isSeparator(c) && c != ';' && c >= 0x20)
            ++m_stray;
        ++m_pos;
    }
    return false;
}

bool Reader::number(double& v) {
    size_t p = m_pos;
    while (p < m_size && isSeparator(m_data[p]))
        ++p;
    if (p >= m_size)
        return false;
    bool negative = false;
    size_t q = p;
    if (m_data[q] == '+' || m_data[q] == '-') {
        negative = m_data[q] == '-';
        ++q;
    }
    double value = 0;
    bool digits = false;
    while (q < m_size && m_data[q] >= '0' && m_data[q] <= '9') {
        value = value * 10 + (m_data[q] - '0');
        if (value > kMaxValue)
            value = kMaxValue;
        digits = true;
        ++q;
    }
    if (q < m_size && m_data[q] == '.') {
        ++q;
        double scale = 0.1;
        while (q < m_size && m_data[q] >= '0' && m_data[q] <= '9') {
            value += (m_data[q] - '0') * scale;
            scale *= 0.1;
            digits = true;
            ++q;
        }
    }
    if (!digits) {
        if (q == p)
            return false;
        // A sign (or a point) alone: taken as zero, as a lenient plotter does.
    }
    m_pos = q;
    v = negative ? -value : value;
    return true;
}

bool Reader::numbers(std::vector<double>& out, size_t max) {
    out.clear();
    double v = 0;
    while (out.size() < max && number(v))
        out.push_back(v);
    if (out.size() >= max)
        return true;
    numbersEnd();
    return false;
}

void Reader::numbers(std::vector<double>& out) {
    out.clear();
    double v = 0;
    while (number(v))
        out.push_back(v);
    numbersEnd();
}

void Reader::numbersEnd() {
    while (m_pos < m_size && isSeparator(m_data[m_pos]))
        ++m_pos;
    if (m_pos < m_size && m_data[m_pos] == ';') {
        ++m_pos;
        return;
    }
    // Anything else that is neither a letter nor an ESC does not belong here: skip to what does.
    while (m_pos < m_size) {
        const uint8_t c = m_data[m_pos];
        if (c == kEsc || isLetter(c))
            return;
        ++m_pos;
        if (c == ';')
            return;
        ++m_stray;
    }
}

void Reader::skipParameters() {
    bool quoted = false;
    while (m_pos < m_size) {
        const uint8_t c = m_data[m_pos];
        if (c == kEsc)
            return;
        if (quoted) {
            if (c == '"')
                quoted = false;
            ++m_pos;
            continue;
        }
        if (c == '"') {
            quoted = true;
            ++m_pos;
            continue;
        }
        if (isLetter(c))
            return;
        ++m_pos;
        if (c == ';')
            return;
    }
}

std::vector<EncodedItem> decodePolylineEncoded(const uint8_t* data, size_t size, size_t& pos) {
    std::vector<EncodedItem> items;
    bool sevenBit = false;
    int fractionBits = 0;
    bool penUp = false, absolute = false;
    enum class Want : uint8_t { Coordinate, Pen, Fraction } want = Want::Coordinate;
    bool haveX = false;
    double x = 0;
    uint64_t acc = 0;
    uint64_t mult = 1;

    auto finishNumber = [&](uint64_t n) {
        const double magnitude = static_cast<double>(n >> 1);
        const double value = (n & 1) ? -magnitude : magnitude;
        switch (want) {
        case Want::Pen: {
            EncodedItem it;
            it.kind = EncodedItem::Kind::Pen;
            it.pen = static_cast<int>(std::min(magnitude, 1e6));
            items.push_back(it);
            want = Want::Coordinate;
            break;
        }
        case Want::Fraction:
            fractionBits = static_cast<int>(std::max(-26.0, std::min(26.0, value)));
            want = Want::Coordinate;
            break;
        case Want::Coordinate: {
            const double scaled = std::ldexp(value, -fractionBits);
            if (!haveX) {
                x = scaled;
                haveX = true;
            } else {
                EncodedItem it;
                it.kind = EncodedItem::Kind::Point;
                it.x = x;
                it.y = scaled;
                it.penUp = penUp;
                it.absolute = absolute;
                items.push_back(it);
                haveX = false;
                penUp = false;
                absolute = false;
            }
            break;
        }
        }
    };

    while (pos < size) {
        uint8_t c = data[pos];
        if (c == kEsc)
            return items;
        ++pos;
        if (c == ';')
            return items;
        // Flags are known with or without their eighth bit; in seven-bit mode every eighth bit
        // is dropped.
        const uint8_t low = c & 0x7F;
        if (low == ':' || low == '<' || low == '>' || low == '=' || low == '7') {
            switch (low) {
            case ':': want = Want::Pen; break;
            case '<': penUp = true; break;
            case '>': want = Want::Fraction; break;
            case '=': absolute = true; break;
            default: sevenBit = true; break;
            }
            continue;
        }
        if (sevenBit)
            c = low;
        int digit = -1;
        bool terminal = false;
        if (sevenBit) {
            if (c >= 63 && c <= 94) digit = c - 63;
            else if (c >= 95 && c <= 126) { digit = c - 95; terminal = true; }
        } else {
            if (c >= 63 && c <= 126) digit = c - 63;
            else if (c >= 191 && c <= 254) { digit = c - 191; terminal = true; }
        }
        if (digit < 0)
            continue; // blanks, line ends and other bytes carry nothing
        if (mult < (uint64_t(1) << 56))
            acc += static_cast<uint64_t>(digit) * mult;
        mult *= sevenBit ? 32 : 64;
        if (mult >= (uint64_t(1) << 60))
            mult = uint64_t(1) << 60;
        if (terminal) {
            finishNumber(acc);
            acc = 0;
            mult = 1;
        }
    }
    return items;
}

} // namespace qx::hpgl2
