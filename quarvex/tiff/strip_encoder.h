#pragma once
// Compression of a page's strips apart from the file they go into, so that the TIFF writer can
// compress two strips at once (on two cores) and compress a strip that is all one value only
// once: such a strip gives the same bytes wherever it comes. Each strip is compressed by
// libtiff's own codec, fed row by row exactly as a file written row by row feeds it, so the
// bytes are the ones libtiff would have put into the file; the writer then stores them as they
// are. CCITT strips go through this program's own encoder instead, which gives the same bytes
// several times faster.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tiff/ccitt_encoder.h"

typedef struct tiff TIFF;

namespace qx::tiff {

// The layout of one page's strips: tags are set on every TIFF handle that takes part.
struct StripLayout {
    uint32_t rowsPerStrip = 1;
    uint32_t height = 0;
    size_t rowBytes = 0;   // bytes of one row in the file
    size_t stride = 0;     // bytes of one row in memory
    int pixelBytes = 1;    // bytes that repeat in a row of one colour: 3 for RGB, else 1
    bool bilevel = false;  // 1-bit rows: the last byte may hold fewer pixels
    int width = 0;
    // Rows outside [inkTop, inkBottom) are known to be blank: every byte is `blank`.
    uint32_t inkTop = 0, inkBottom = UINT32_MAX;
    uint8_t blank = 0;
    // The codec changes the rows it is given (a predictor works in place): it gets copies.
    bool codecWritesRows = true;
    // 1-bit rows to CCITT Group 3 or 4: compressed by CcittEncoder, without a libtiff handle.
    bool ownCcitt = false;
    CcittEncoder::Scheme ccitt = CcittEncoder::Scheme::G4;
    int ccittRowsPerGroup = 1; // Group 3 2-D: rows from one 1-D row to the next

    uint32_t strips() const { return (height + rowsPerStrip - 1) / rowsPerStrip; }
    uint32_t rowsIn(uint32_t strip) const {
        const uint32_t first = strip * rowsPerStrip;
        return first + rowsPerStrip <= height ? rowsPerStrip : height - first;
    }
};

// Whether every row of a strip is the same row of one colour; if so, key describes it.
struct UniformKey {
    uint32_t rows = 0;
    uint8_t pixel[3] = {0, 0, 0};
    uint8_t last = 0; // the last byte of a row (a 1-bit row's part byte)
    bool operator==(const UniformKey&) const = default;
};
bool uniformStrip(const StripLayout& layout, const uint8_t* rows, uint32_t count, UniformKey& key);

// Counts of the work done, for tests and benchmarks.
struct StripStats {
    uint64_t stripsEncoded = 0; // strips run through a codec
    uint64_t stripsReused = 0;  // strips of one colour whose bytes were compressed before
    uint64_t bytesEncoded = 0;  // uncompressed bytes run through a codec
    uint64_t pagesShared = 0;   // pages whose strips were compressed on two threads
};

// One in-memory TIFF handle that compresses strips with the tags of the page being written.
class ScratchEncoder {
public:
    ScratchEncoder() = default;
    ~ScratchEncoder();
    ScratchEncoder(const ScratchEncoder&) = delete;
    ScratchEncoder& operator=(const ScratchEncoder&) = delete;

    // Starts a page: setTags(handle) sets the page's tags. false: libtiff refused. Not needed
    // for a layout with ownCcitt.
    bool begin(const std::function<bool(TIFF*)>& setTags);
    // Compresses strip number strip (rows of layout.stride bytes) into out. false on failure.
    // fixedRoom (CCITT only): out keeps its allocation, and false may also mean that the strip
    // did not fit in its capacity. stop (CCITT only): when it turns true, coding gives up
    // (false) at the next row.
    bool encode(const StripLayout& layout, uint32_t strip, const uint8_t* rows, std::vector<uint8_t>& out,
                bool fixedRoom = false, const std::atomic<bool>* stop = nullptr);
    void end();
    // Makes room for CCITT rows of width pixels, so that coding them allocates nothing.
    void reserveCcitt(int width) { m_ccitt.reserve(width); }

private:
    friend struct ScratchIo;
    TIFF* m_tif = nullptr;
    std::vector<uint8_t>* m_capture = nullptr;
    uint64_t m_offset = 0, m_size = 0;
    std::vector<uint8_t> m_row;
    CcittEncoder m_ccitt;
};

// Compresses the strips of a page, on this thread and one helper thread when the page is large
// enough to be worth it, and hands them over in order; strips of one colour come from a cache.
// A 1-bit page goes to CCITT coding on two threads only when a sample of its rows shows enough
// colour changes (the coding work) to pay for it: then the helper codes into buffers allocated
// beforehand by this thread, so that it never allocates (a thread's first allocation would
// give it a memory arena of its own), and a strip that does not fit in its buffer is coded
// again here.
class StripPipeline {
public:
    StripPipeline();
    ~StripPipeline();
    StripPipeline(const StripPipeline&) = delete;
    StripPipeline& operator=(const StripPipeline&) = delete;

    // Compresses every strip of the page and calls put(strip, bytes, size) for each, in order.
    // cacheKey identifies the compression and tags (strips of one colour are reused while it
    // stays the same). false: a strip could not be compressed or put() failed.
    bool run(const StripLayout& layout, const uint8_t* data, uint64_t cacheKey,
             const std::function<bool(TIFF*)>& setTags,
             const std::function<bool(uint32_t, const uint8_t*, size_t)>& put);

    const StripStats& stats() const { return m_stats; }
    // Whether a helper thread may be used (on by default where there are two cores or more).
    void setThreads(bool allowed) { m_threadsAllowed = allowed; }

private:
    struct Slot {
        uint32_t strip = 0;
        bool ready = false;
        bool ok = true;
        bool retry = false;  // the helper's buffer was too small: code it here
        bool reused = false; // the bytes came from the cache
        std::vector<uint8_t> bytes;
    };
    struct Cached {
        UniformKey key;
        std::vector<uint8_t> bytes;
    };
    void helperLoop();
    bool encodeInto(ScratchEncoder& enc, bool& begun, uint32_t strip, Slot& slot,
                    const std::atomic<bool>* stop = nullptr);
    bool shareCcitt(const StripLayout& layout, const uint8_t* data);
    bool putStrip(const StripLayout& layout, uint32_t strip, const Slot& slot,
                  const std::function<bool(uint32_t, const uint8_t*, size_t)>& put);
    const std::vector<uint8_t>* cached(const UniformKey& key) const;

    StripStats m_stats;
    bool m_threadsAllowed = true;
    uint64_t m_cacheKey = ~uint64_t(0);
    std::vector<Cached> m_cache;
    ScratchEncoder m_mine;

    // The page being compressed, shared with the helper thread.
    std::thread m_helper;
    std::mutex m_mutex;
    std::condition_variable m_wake, m_done;
    bool m_quit = false;
    uint64_t m_page = 0; // counts pages, so the helper knows a new one has come
    bool m_shared = false; // the helper may take strips of this page
    const StripLayout* m_layout = nullptr;
    const uint8_t* m_data = nullptr;
    const std::function<bool(TIFF*)>* m_setTags = nullptr;
    uint32_t m_next = 0;    // the next strip nobody has taken
    uint32_t m_written = 0; // strips handed over so far
    uint32_t m_window = 1;  // strips in flight at most
    static constexpr uint32_t kNone = UINT32_MAX;
    uint32_t m_helperStrip = kNone; // the strip the helper is coding
    uint32_t m_stealing = kNone;    // the strip this thread codes as well, not to wait for it
    std::atomic<bool> m_stopHelper{false}, m_stopMine{false}; // the other thread was first
    std::vector<Slot> m_slots; // a window of strips in flight, by strip % size
    Slot m_spare;              // the bytes of a strip coded here as well as by the helper
    std::vector<uint8_t> m_uniform; // per strip: 1 = one colour, found in the cache
    ScratchEncoder m_theirs;
};

} // namespace qx::tiff
