#include "tiff/strip_encoder.h"

#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace qx::tiff {

bool uniformStrip(const StripLayout& layout, const uint8_t* rows, uint32_t count, UniformKey& key) {
    const size_t n = layout.rowBytes;
    const size_t p = size_t(layout.pixelBytes);
    // The bytes of a row that hold whole pixels only; a 1-bit row's last byte may hold fewer.
    const size_t full = layout.bilevel ? size_t(layout.width) / 8 : n;
    if (count == 0 || n == 0 || full < p)
        return false;
    // One colour: every pixel's bytes repeat the first pixel's (an overlapping compare).
    if (full > p && std::memcmp(rows + p, rows, full - p) != 0)
        return false;
    for (uint32_t r = 1; r < count; ++r)
        if (std::memcmp(rows + size_t(r) * layout.stride, rows, n) != 0)
            return false;
    key = UniformKey{};
    key.rows = count;
    std::memcpy(key.pixel, rows, p);
    key.last = rows[n - 1];
    return true;
}

// ---- the in-memory TIFF handle --------------------------------------------------------------

// libtiff's file operations on a ScratchEncoder: writes go to the buffer being captured (the
// compressed strip), everything else only moves the notional file position.
struct ScratchIo {
    static ScratchEncoder* self(thandle_t h) { return static_cast<ScratchEncoder*>(h); }
    static tmsize_t read(thandle_t, void*, tmsize_t) { return 0; }
    static tmsize_t write(thandle_t h, void* buf, tmsize_t n) {
        ScratchEncoder* e = self(h);
        if (e->m_capture) {
            const auto* p = static_cast<const uint8_t*>(buf);
            e->m_capture->insert(e->m_capture->end(), p, p + n);
        }
        e->m_offset += uint64_t(n);
        e->m_size = std::max(e->m_size, e->m_offset);
        return n;
    }
    static toff_t seek(thandle_t h, toff_t off, int whence) {
        ScratchEncoder* e = self(h);
        switch (whence) {
        case SEEK_SET: e->m_offset = off; break;
        case SEEK_CUR: e->m_offset += off; break;
        case SEEK_END: e->m_offset = e->m_size + off; break;
        default: break;
        }
        return e->m_offset;
    }
    static int close(thandle_t) { return 0; }
    static toff_t size(thandle_t h) { return self(h)->m_size; }
    static int map(thandle_t, void**, toff_t*) { return 0; }
    static void unmap(thandle_t, void*, toff_t) {}
    static int quiet(TIFF*, void*, const char*, const char*, va_list) { return 1; }
};

ScratchEncoder::~ScratchEncoder() { end(); }

bool ScratchEncoder::begin(const std::function<bool(TIFF*)>& setTags) {
    end();
    m_offset = m_size = 0;
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(opts, ScratchIo::quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, ScratchIo::quiet, nullptr);
    m_tif = TIFFClientOpenExt("strip", "w", this, ScratchIo::read, ScratchIo::write, ScratchIo::seek,
                              ScratchIo::close, ScratchIo::size, ScratchIo::map, ScratchIo::unmap, opts);
    TIFFOpenOptionsFree(opts);
    if (!m_tif)
        return false;
    // A small output buffer: the codec writes out whenever it fills, which changes nothing in
    // the bytes and keeps the handle light.
    if (!setTags(m_tif) || !TIFFWriteBufferSetup(m_tif, nullptr, 16 * 1024)) {
        end();
        return false;
    }
    return true;
}

bool ScratchEncoder::encode(const StripLayout& layout, uint32_t strip, const uint8_t* rows,
                            std::vector<uint8_t>& out, bool fixedRoom, const std::atomic<bool>* stop) {
    if (layout.ownCcitt) {
        return m_ccitt.encodeStrip(layout.ccitt, layout.ccittRowsPerGroup, rows, layout.width, layout.stride,
                                   layout.rowsIn(strip), out, fixedRoom, stop) &&
               !out.empty();
    }
    if (!m_tif)
        return false;
    out.clear();
    m_capture = &out;
    if (layout.codecWritesRows)
        m_row.resize(layout.rowBytes);
    const uint32_t first = strip * layout.rowsPerStrip, count = layout.rowsIn(strip);
    bool ok = true;
    for (uint32_t r = 0; ok && r < count; ++r) {
        const uint8_t* row = rows + size_t(r) * layout.stride;
        if (layout.codecWritesRows) {
            // The page must stay as it is: the codec works on a copy.
            std::memcpy(m_row.data(), row, layout.rowBytes);
            row = m_row.data();
        }
        ok = TIFFWriteScanline(m_tif, const_cast<uint8_t*>(row), first + r, 0) == 1;
    }
    // Ends the strip: the codec's last bytes are written, into out.
    ok = ok && TIFFFlushData(m_tif) == 1;
    m_capture = nullptr;
    return ok && !out.empty();
}

void ScratchEncoder::end() {
    if (m_tif) {
        m_capture = nullptr;
        TIFFClose(m_tif); // writes a directory nobody keeps
        m_tif = nullptr;
    }
}

// ---- the pipeline ---------------------------------------------------------------------------

namespace {
// Pages smaller than this are compressed on one thread: the helper's codec state and strips
// would weigh on their peak memory, and handing strips over costs time. (1-bit pages to CCITT
// go by their estimated coding work instead.)
constexpr size_t kParallelBytes = size_t(8) << 20;
// Rows sampled for the coding work of a 1-bit page: one in this many.
constexpr uint32_t kSampleStep = 8;
// Colour changes on a page (estimated from the sample) from which CCITT coding is shared.
constexpr uint64_t kBusyChanges = 1000000;
// Strips compressed ahead of the one being written, at most: enough that neither thread waits
// for the other to write a strip out while strips of unequal work are shared.
constexpr uint32_t kWindow = 4;
// Strips of one colour remembered (white, and the few colours a page is filled with).
constexpr size_t kCacheEntries = 16;
} // namespace

StripPipeline::StripPipeline() : m_slots(kWindow) {
    m_threadsAllowed = std::thread::hardware_concurrency() > 1;
}

StripPipeline::~StripPipeline() {
    if (m_helper.joinable()) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_quit = true;
        }
        m_wake.notify_all();
        m_helper.join();
    }
}

const std::vector<uint8_t>* StripPipeline::cached(const UniformKey& key) const {
    for (const Cached& c : m_cache)
        if (c.key == key)
            return &c.bytes;
    return nullptr;
}

// Compresses one strip into slot (or takes its bytes from the cache). Called on either thread,
// without the lock held; takes it for the cache. (Strips are counted as they are handed over:
// one that both threads coded counts once.) The helper codes CCITT strips
// within the slot's capacity and adds nothing to the cache, so that it allocates nothing.
bool StripPipeline::encodeInto(ScratchEncoder& enc, bool& begun, uint32_t strip, Slot& slot,
                               const std::atomic<bool>* stop) {
    // The helper allocates nothing while it codes CCITT strips (see shareCcitt).
    const bool noAlloc = &enc == &m_theirs && m_layout->ownCcitt;
    const StripLayout& layout = *m_layout;
    const uint8_t* rows = m_data + size_t(strip) * layout.rowsPerStrip * layout.stride;
    const uint32_t count = layout.rowsIn(strip);
    UniformKey key;
    const uint32_t first = strip * layout.rowsPerStrip;
    bool uniform;
    if (first >= layout.inkBottom || first + count <= layout.inkTop) {
        // Nothing was drawn here: blank, without looking.
        key.rows = count;
        std::memset(key.pixel, layout.blank, size_t(layout.pixelBytes)); // as uniformStrip keys it
        key.last = layout.blank;
        uniform = true;
    } else {
        uniform = uniformStrip(layout, rows, count, key);
    }
    if (uniform) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (const auto* bytes = cached(key); bytes && (!noAlloc || bytes->size() <= slot.bytes.capacity())) {
            slot.bytes = *bytes;
            slot.reused = true;
            return true;
        }
    }
    if (!begun && !layout.ownCcitt) {
        if (!enc.begin(*m_setTags))
            return false;
        begun = true;
    }
    if (!enc.encode(layout, strip, rows, slot.bytes, noAlloc, stop)) {
        slot.retry = noAlloc && !(stop && stop->load(std::memory_order_relaxed));
        return false;
    }
    slot.reused = false;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (uniform && !noAlloc && !cached(key) && m_cache.size() < kCacheEntries)
        m_cache.push_back({key, slot.bytes});
    return true;
}

// Whether a 1-bit page's CCITT coding is worth sharing with the helper: the colour changes of
// one row in kSampleStep (where ink is) tell the work. If so, every slot gets room for the
// busiest strip's codes as estimated, and the helper's coder room for a row, so that the
// helper need not allocate.
bool StripPipeline::shareCcitt(const StripLayout& layout, const uint8_t* data) {
    const uint32_t top = std::min(layout.inkTop, layout.height);
    const uint32_t bottom = std::min(layout.inkBottom, layout.height);
    uint64_t total = 0, busiest = 0, inStrip = 0;
    uint32_t strip = top / layout.rowsPerStrip;
    for (uint32_t y = top; y < bottom; y += kSampleStep) {
        if (y / layout.rowsPerStrip != strip) {
            busiest = std::max(busiest, inStrip);
            inStrip = 0;
            strip = y / layout.rowsPerStrip;
        }
        const uint64_t c = countChanges(data + size_t(y) * layout.stride, layout.width);
        inStrip += c;
        total += c;
    }
    busiest = std::max(busiest, inStrip);
    total *= kSampleStep;
    busiest *= kSampleStep;
    if (total < kBusyChanges)
        return false;
    // About a byte per change at most on busy pages (a horizontal mode's two runs take up to
    // two and a half), with room for one row's codes at their longest over it; a strip that
    // still does not fit is coded again by this thread.
    const size_t room = size_t(busiest) + size_t(busiest) / 4 + size_t(layout.width) + 4096;
    for (uint32_t i = 0; i < kWindow; ++i)
        if (Slot& s = m_slots[i]; s.bytes.capacity() < room) {
            std::vector<uint8_t>().swap(s.bytes);
            s.bytes.reserve(room);
        }
    if (m_spare.bytes.capacity() < room) {
        std::vector<uint8_t>().swap(m_spare.bytes);
        m_spare.bytes.reserve(room);
    }
    m_theirs.reserveCcitt(layout.width);
    return true;
}

bool StripPipeline::putStrip(const StripLayout& layout, uint32_t strip, const Slot& slot,
                             const std::function<bool(uint32_t, const uint8_t*, size_t)>& put) {
    if (slot.reused) {
        ++m_stats.stripsReused;
    } else {
        ++m_stats.stripsEncoded;
        m_stats.bytesEncoded += uint64_t(layout.rowsIn(strip)) * layout.rowBytes;
    }
    return put(strip, slot.bytes.data(), slot.bytes.size());
}

void StripPipeline::helperLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    uint64_t page = 0;
    bool begun = false;
    for (;;) {
        m_wake.wait(lock, [&] {
            return m_quit || (m_shared && m_next < m_layout->strips() && m_next < m_written + m_window);
        });
        if (m_quit)
            return;
        if (page != m_page) {
            page = m_page;
            begun = false; // the page's first strip here starts the encoder anew
        }
        const uint32_t strip = m_next++;
        Slot& slot = m_slots[strip % m_window];
        m_helperStrip = strip;
        m_stopHelper.store(false, std::memory_order_relaxed);
        Slot done;
        done.strip = strip;
        done.bytes.swap(slot.bytes);
        lock.unlock();
        done.ok = encodeInto(m_theirs, begun, strip, done, &m_stopHelper);
        lock.lock();
        slot.bytes.swap(done.bytes);
        m_helperStrip = kNone;
        if (strip >= m_written) {
            slot.strip = strip;
            slot.ok = done.ok;
            slot.retry = done.retry;
            slot.reused = done.reused;
            slot.ready = true;
            // This thread was first with a strip the other one is coding too: it may stop.
            if (strip == m_stealing && done.ok)
                m_stopMine.store(true, std::memory_order_relaxed);
        } // else the other thread has written this strip already: the bytes are not needed
        m_done.notify_all();
    }
}

bool StripPipeline::run(const StripLayout& layout, const uint8_t* data, uint64_t cacheKey,
                        const std::function<bool(TIFF*)>& setTags,
                        const std::function<bool(uint32_t, const uint8_t*, size_t)>& put) {
    if (cacheKey != m_cacheKey) {
        m_cache.clear();
        m_cacheKey = cacheKey;
    }
    const uint32_t n = layout.strips();
    bool parallel = false;
    if (m_threadsAllowed && n >= 2) {
        if (layout.ownCcitt)
            parallel = shareCcitt(layout, data);
        else
            parallel = n >= 4 && size_t(layout.height) * layout.rowBytes >= kParallelBytes;
    }
    bool mineBegun = false;
    bool ok = true;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_layout = &layout;
        m_data = data;
        m_setTags = &setTags;
        m_next = 0;
        m_written = 0;
        m_window = kWindow;
        ++m_page;
        for (Slot& s : m_slots)
            s.ready = false;
    }
    if (!parallel) {
        Slot& slot = m_slots[0];
        for (uint32_t s = 0; ok && s < n; ++s) {
            ok = encodeInto(m_mine, mineBegun, s, slot) && putStrip(layout, s, slot, put);
        }
    } else {
        ++m_stats.pagesShared;
        if (!m_helper.joinable())
            m_helper = std::thread([this] { helperLoop(); });
        std::unique_lock<std::mutex> lock(m_mutex);
        // The helper starts at once on CCITT pages; on others once the first strip is done, so
        // that a page's strips of one colour are known to the cache and are not compressed by
        // both threads at once (the helper adds nothing to the cache on CCITT pages anyway).
        if (layout.ownCcitt) {
            m_shared = true;
            m_wake.notify_all();
        }
        // Hands strip m_written over, outside the lock, and moves on.
        auto putHead = [&](const Slot& slot) {
            lock.unlock();
            ok = putStrip(layout, m_written, slot, put);
            lock.lock();
            ++m_written;
            m_shared = true;
            m_wake.notify_all();
        };
        while (ok && m_written < n) {
            Slot& head = m_slots[m_written % m_window];
            if (head.ready && head.strip == m_written) {
                // The next strip in order; one the helper had no room for is coded here first.
                head.ready = false;
                if (!head.ok && head.retry) {
                    lock.unlock();
                    head.retry = false;
                    head.ok = encodeInto(m_mine, mineBegun, m_written, head);
                    lock.lock();
                }
                if (!head.ok) {
                    ok = false;
                    break;
                }
                putHead(head);
                continue;
            }
            const bool slotFree = m_helperStrip == kNone || m_helperStrip % m_window != m_next % m_window;
            if (m_next < n && m_next < m_written + m_window && slotFree) {
                const uint32_t strip = m_next++;
                Slot& slot = m_slots[strip % m_window];
                lock.unlock();
                const bool done = encodeInto(m_mine, mineBegun, strip, slot);
                lock.lock();
                slot.strip = strip;
                slot.ok = done;
                slot.retry = false;
                slot.ready = true;
                continue;
            }
            if (m_helperStrip == m_written) {
                // Nothing else to do but wait for the helper, which may not even have a core
                // (the machine may be busy): code the strip here too, and whichever thread
                // finishes first stops the other.
                const uint32_t strip = m_written;
                m_stealing = strip;
                m_stopMine.store(false, std::memory_order_relaxed);
                lock.unlock();
                const bool done = encodeInto(m_mine, mineBegun, strip, m_spare, &m_stopMine);
                lock.lock();
                m_stealing = kNone;
                if (done) {
                    if (m_helperStrip == strip)
                        m_stopHelper.store(true, std::memory_order_relaxed);
                    putHead(m_spare);
                } else if (!m_stopMine.load(std::memory_order_relaxed)) {
                    ok = false;
                } // else the helper was first: its bytes are in the head slot
                continue;
            }
            m_done.wait(lock);
        }
        // Stop handing out strips and wait for the helper to put down the one it has.
        m_next = n;
        m_stopHelper.store(true, std::memory_order_relaxed);
        m_done.wait(lock, [&] { return m_helperStrip == kNone; });
        m_shared = false;
        lock.unlock();
        m_theirs.end();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_layout = nullptr;
        m_data = nullptr;
        m_setTags = nullptr;
    }
    m_mine.end();
    return ok;
}

} // namespace qx::tiff
