#include "pcl5/raster_decode.h"

#include <algorithm>
#include <cstring>

namespace qx::pcl5 {

bool knownCompression(int method) {
    return method == 0 || method == 1 || method == 2 || method == 3 || method == 5 || method == 9;
}

void decodeUnencoded(std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    std::fill(row.begin(), row.end(), 0);
    const size_t n = std::min(in.size(), row.size());
    if (n)
        std::memcpy(row.data(), in.data(), n);
}

void decodeRunLength(std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    std::fill(row.begin(), row.end(), 0);
    size_t out = 0;
    for (size_t i = 0; i + 1 < in.size() && out < row.size(); i += 2) {
        const size_t count = static_cast<size_t>(in[i]) + 1;
        const size_t n = std::min(count, row.size() - out);
        std::fill_n(row.begin() + static_cast<ptrdiff_t>(out), n, in[i + 1]);
        out += n;
    }
}

void decodeTiff(std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    std::fill(row.begin(), row.end(), 0);
    size_t out = 0;
    size_t i = 0;
    while (i < in.size() && out < row.size()) {
        const int control = static_cast<int8_t>(in[i++]);
        if (control >= 0) {
            const size_t count = static_cast<size_t>(control) + 1;
            const size_t avail = std::min(count, in.size() - i);
            const size_t n = std::min(avail, row.size() - out);
            if (n)
                std::memcpy(row.data() + out, in.data() + i, n);
            out += n;
            i += avail;
        } else if (control != -128) {
            if (i >= in.size())
                break;
            const size_t count = static_cast<size_t>(1 - control);
            const size_t n = std::min(count, row.size() - out);
            std::fill_n(row.begin() + static_cast<ptrdiff_t>(out), n, in[i++]);
            out += n;
        }
    }
}

void decodeDeltaRow(std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    size_t pos = 0; // the current byte in the row
    size_t i = 0;
    while (i < in.size()) {
        const uint8_t command = in[i++];
        const size_t count = static_cast<size_t>(command >> 5) + 1;
        size_t offset = command & 0x1F;
        if (offset == 31) {
            while (i < in.size()) {
                const uint8_t more = in[i++];
                offset += more;
                if (more != 255)
                    break;
            }
        }
        pos += offset;
        for (size_t k = 0; k < count && i < in.size(); ++k, ++i, ++pos)
            if (pos < row.size())
                row[pos] = in[i];
    }
}

namespace {
// A field of a method-9 command byte with its extension bytes: each extension is added, and
// another follows as long as the previous one was 255.
size_t extendedField(size_t value, size_t maxValue, std::span<const uint8_t> in, size_t& i) {
    if (value != maxValue)
        return value;
    while (i < in.size()) {
        const uint8_t more = in[i++];
        value += more;
        if (more != 255)
            break;
    }
    return value;
}
} // namespace

void decodeReplacementDelta(std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    size_t pos = 0;
    size_t i = 0;
    while (i < in.size()) {
        const uint8_t command = in[i++];
        if (command & 0x80) {
            // Repeated byte: offset in bits 6-5, count - 2 in bits 4-0.
            const size_t offset = extendedField((command >> 5) & 0x3, 3, in, i);
            const size_t count = extendedField(command & 0x1F, 31, in, i) + 2;
            if (i >= in.size())
                break;
            const uint8_t value = in[i++];
            pos += offset;
            for (size_t k = 0; k < count && pos < row.size(); ++k, ++pos)
                row[pos] = value;
            if (pos >= row.size())
                pos = row.size();
        } else {
            // Literal bytes: offset in bits 6-3, count - 1 in bits 2-0.
            const size_t offset = extendedField((command >> 3) & 0xF, 15, in, i);
            const size_t count = extendedField(command & 0x7, 7, in, i) + 1;
            pos += offset;
            for (size_t k = 0; k < count && i < in.size(); ++k, ++i, ++pos)
                if (pos < row.size())
                    row[pos] = in[i];
        }
    }
}

bool decodeRow(int method, std::span<const uint8_t> in, std::vector<uint8_t>& row) {
    switch (method) {
    case 0: decodeUnencoded(in, row); return true;
    case 1: decodeRunLength(in, row); return true;
    case 2: decodeTiff(in, row); return true;
    case 3: decodeDeltaRow(in, row); return true;
    case 9: decodeReplacementDelta(in, row); return true;
    default: return false;
    }
}

void decodeAdaptive(std::span<const uint8_t> in, std::vector<uint8_t>& row,
                    const std::function<bool(const std::vector<uint8_t>&)>& emit) {
    size_t i = 0;
    while (i + 3 <= in.size()) {
        const uint8_t command = in[i];
        const size_t count = (static_cast<size_t>(in[i + 1]) << 8) | in[i + 2];
        i += 3;
        switch (command) {
        case 0:
        case 1:
        case 2:
        case 3: {
            const size_t n = std::min(count, in.size() - i);
            decodeRow(command, in.subspan(i, n), row);
            i += n;
            if (!emit(row))
                return;
            break;
        }
        case 4: // empty rows
            std::fill(row.begin(), row.end(), 0);
            for (size_t k = 0; k < count; ++k)
                if (!emit(row))
                    return;
            break;
        case 5: // duplicates of the last row
            for (size_t k = 0; k < count; ++k)
                if (!emit(row))
                    return;
            break;
        default:
            return; // damaged block: the rest means nothing
        }
    }
}

} // namespace qx::pcl5
