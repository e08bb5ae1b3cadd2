#pragma once
// Splitting HP-GL/2 into instructions: a two-letter mnemonic and its parameters.
//
// Parameters are numbers separated by commas, blanks or nothing but their own sign
// ("PA10-20" is 10, -20); an instruction ends at ';', at the next letter or at an ESC. Letters
// of a mnemonic may be of either case, and blanks, line ends and ';' may stand between
// instructions.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::hpgl2 {

class Reader {
public:
    Reader(const uint8_t* data, size_t size, size_t pos = 0) : m_data(data), m_size(size), m_pos(pos) {}

    // Moves to the next mnemonic and reads it (upper case). false at an ESC or at the end;
    // position() then points at the ESC (or the end). Stray bytes between instructions are
    // skipped and counted in strayBytes().
    bool nextMnemonic(char& a, char& b);
    // Reads numeric parameters up to the end of the instruction, and a ';' that ends it.
    void numbers(std::vector<double>& out);
    // The same, at most max of them: true when it stopped there and more may follow (the next
    // call reads on), false when the instruction has ended.
    bool numbers(std::vector<double>& out, size_t max);
    // Skips the parameters of an instruction whose syntax is unknown: up to ';', the next
    // letter or an ESC. Quoted strings are skipped whole.
    void skipParameters();

    size_t position() const { return m_pos; }
    void setPosition(size_t pos) { m_pos = pos; }
    bool atEnd() const { return m_pos >= m_size; }
    uint8_t peek() const { return m_pos < m_size ? m_data[m_pos] : 0; }
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    size_t strayBytes() const { return m_stray; }

    static bool isSeparator(uint8_t c) {
        return c == ' ' || c == ',' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
    }
    static bool isLetter(uint8_t c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

private:
    bool number(double& v);
    void numbersEnd();

    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos;
    size_t m_stray = 0;
};

} // namespace qx::hpgl2
