#include "pclxl/raster_codec.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

namespace qx::pclxl {

size_t RunLengthDecoder::read(size_t n, std::vector<uint8_t>& out) {
    size_t done = 0;
    while (done < n) {
        if (m_literal > 0) {
            const size_t avail = std::min({m_literal, n - done, m_size - m_pos});
            if (avail == 0) {
                m_damaged = true;
                m_literal = 0;
                break;
            }
            out.insert(out.end(), m_data + m_pos, m_data + m_pos + avail);
            m_pos += avail;
            m_literal -= avail;
            done += avail;
            continue;
        }
        if (m_repeat > 0) {
            const size_t count = std::min(m_repeat, n - done);
            out.insert(out.end(), count, m_byte);
            m_repeat -= count;
            done += count;
            continue;
        }
        if (m_pos >= m_size)
            break;
        const int c = int8_t(m_data[m_pos++]);
        if (c >= 0) {
            m_literal = size_t(c) + 1;
        } else if (c != -128) {
            if (m_pos >= m_size) {
                m_damaged = true;
                break;
            }
            m_byte = m_data[m_pos++];
            m_repeat = size_t(1 - c);
        }
    }
    return done;
}

bool DeltaRowDecoder::nextRow(std::vector<uint8_t>& seed) {
    if (m_size - m_pos < 2) {
        if (m_pos < m_size)
            m_damaged = true;
        m_pos = m_size;
        return false;
    }
    const size_t count = size_t(m_data[m_pos]) | size_t(m_data[m_pos + 1]) << 8;
    m_pos += 2;
    if (count > m_size - m_pos) {
        m_damaged = true;
        m_pos = m_size;
        return false;
    }
    const size_t end = m_pos + count;
    size_t i = m_pos;
    size_t col = 0;
    const size_t width = seed.size();
    while (i < end) {
        const uint8_t cmd = m_data[i++];
        const size_t replace = size_t(cmd >> 5) + 1;
        size_t offset = cmd & 0x1F;
        if (offset == 31) {
            while (i < end) {
                const uint8_t more = m_data[i++];
                offset += more;
                if (more != 255)
                    break;
            }
        }
        col += offset;
        for (size_t k = 0; k < replace && i < end; ++k, ++col, ++i)
            if (col < width)
                seed[col] = m_data[i];
    }
    m_pos = end;
    return true;
}

namespace {

struct JpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void jpegErrorExit(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<JpegError*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    longjmp(err->jump, 1);
}

void jpegSilence(j_common_ptr, int) {}

// The part that libjpeg may jump out of: no objects with destructors live here.
bool decodeJpegRaw(jpeg_decompress_struct* cinfo, JpegError* jerr, const uint8_t* data, size_t size,
                   int maxWidth, JpegInfo* info, uint8_t** buffer, size_t* bufferRows,
                   const std::function<void(const uint8_t*, int, int)>* rows) {
    if (setjmp(jerr->jump))
        return false;
    jpeg_create_decompress(cinfo);
    jpeg_mem_src(cinfo, const_cast<unsigned char*>(data), static_cast<unsigned long>(size));
    jpeg_read_header(cinfo, TRUE);
    if (int(cinfo->image_width) > maxWidth) {
        std::snprintf(jerr->message, sizeof jerr->message, "JPEG image %u pixels wide, more than declared",
                      cinfo->image_width);
        return false;
    }
    cinfo->out_color_space = cinfo->num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_start_decompress(cinfo);
    info->width = int(cinfo->output_width);
    info->height = int(cinfo->output_height);
    info->components = cinfo->output_components;
    const size_t stride = size_t(info->width) * size_t(info->components);
    *bufferRows = std::max<size_t>(1, (size_t(4) << 20) / std::max<size_t>(stride, 1));
    *buffer = static_cast<uint8_t*>(std::malloc(stride * *bufferRows));
    if (!*buffer) {
        std::snprintf(jerr->message, sizeof jerr->message, "out of memory");
        return false;
    }
    int first = 0;
    while (cinfo->output_scanline < cinfo->output_height) {
        size_t have = 0;
        while (have < *bufferRows && cinfo->output_scanline < cinfo->output_height) {
            JSAMPROW row = *buffer + stride * have;
            if (jpeg_read_scanlines(cinfo, &row, 1) != 1)
                break;
            ++have;
        }
        if (have == 0)
            break;
        (*rows)(*buffer, first, int(have));
        first += int(have);
    }
    jpeg_finish_decompress(cinfo);
    return true;
}

} // namespace

bool decodeJpeg(const uint8_t* data, size_t size, int maxWidth, JpegInfo& info,
                const std::function<void(const uint8_t* rows, int first, int count)>& rows,
                std::string& error) {
    jpeg_decompress_struct cinfo;
    JpegError jerr;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = jpeg_std_error(&jerr.mgr);
    jerr.mgr.error_exit = jpegErrorExit;
    jerr.mgr.emit_message = jpegSilence;
    jerr.message[0] = 0;
    uint8_t* buffer = nullptr;
    size_t bufferRows = 0;
    const bool ok = decodeJpegRaw(&cinfo, &jerr, data, size, maxWidth, &info, &buffer, &bufferRows, &rows);
    if (!ok)
        error = jerr.message[0] ? jerr.message : "damaged JPEG data";
    jpeg_destroy_decompress(&cinfo);
    std::free(buffer);
    return ok;
}

} // namespace qx::pclxl
