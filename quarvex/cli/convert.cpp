#include "cli/convert.h"

#include "common/diagnostics.h"
#include "common/stall_guard.h"
#include "input/job_loop.h"
#include "input/recognise.h"
#include "render/raster_device.h"
#include "tiff/output_file.h"
#include "tiff/tiff_writer.h"

#if QX_HAVE_FONTS
#include "fonts/font_library.h"
#endif

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifndef QX_VERSION
#define QX_VERSION "0.0.0"
#endif

namespace qx::cli {

namespace {

// The whole input in memory: mapped when it is a regular file, read otherwise (a pipe).
class InputData {
public:
    ~InputData() {
        if (m_map)
            ::munmap(m_map, m_size);
    }

    // false: message says why.
    bool load(const std::string& path, std::string& message) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            message = std::string("cannot open the input: ") + std::strerror(errno);
            return false;
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            message = std::string("cannot read the input: ") + std::strerror(errno);
            ::close(fd);
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            message = "the input is a folder, not a print file";
            ::close(fd);
            return false;
        }
        // Devices would be read forever (/dev/zero); pipes end when their writer is done.
        if (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode)) {
            message = "the input is not a file";
            ::close(fd);
            return false;
        }
        bool ok = true;
        if (S_ISREG(st.st_mode) && st.st_size > 0) {
            m_size = static_cast<size_t>(st.st_size);
            void* map = ::mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, fd, 0);
            if (map == MAP_FAILED) {
                m_size = 0;
                ok = readAll(fd, message);
            } else {
                m_map = map;
                ::madvise(map, m_size, MADV_SEQUENTIAL);
            }
        } else {
            ok = readAll(fd, message);
        }
        ::close(fd);
        return ok;
    }

    const uint8_t* data() const { return m_map ? static_cast<const uint8_t*>(m_map) : m_buffer.data(); }
    size_t size() const { return m_map ? m_size : m_buffer.size(); }

private:
    bool readAll(int fd, std::string& message) {
        uint8_t chunk[65536];
        while (true) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0) {
                message = std::string("cannot read the input: ") + std::strerror(errno);
                return false;
            }
            if (got == 0)
                return true;
            m_buffer.insert(m_buffer.end(), chunk, chunk + got);
        }
    }

    void* m_map = nullptr;
    size_t m_size = 0;
    std::vector<uint8_t> m_buffer;
};

std::string refusal(const std::string& what) {
    return "the input looks like " + what + ", which is not converted (only PCL 5, PCL XL, PostScript, PDF, PJL and EMF spool print files are)";
}

} // namespace

int convert(const Options& options) {
    bool warned = false;
    for (const std::string& w : options.warnings) {
        std::fprintf(stderr, "quarvex: %s\n", w.c_str());
        warned = true;
    }

    Diagnostics diag(options.input);
    std::string output = options.output;
    if (options.writeLocal)
        output = tiff::folderOf(options.input) + "/" + tiff::fileNameOf(options.output);

    InputData in;
    std::string message;
    if (!in.load(options.input, message)) {
        diag.error(message);
        return kNothingWritten;
    }
    if (tiff::namesSameFile(options.input, output)) {
        diag.error("the output " + output + " is the input file itself; choose another output name");
        return kNothingWritten;
    }
    struct stat outStat {};
    if (::stat(output.c_str(), &outStat) == 0 && S_ISDIR(outStat.st_mode)) {
        diag.error("the output " + output + " is a folder; name a file to write");
        return kNothingWritten;
    }

    const input::Kind kind = input::recognise(in.data(), in.size());
    if (kind == input::Kind::Empty) {
        diag.error("the input holds no printable data; nothing to convert");
        return kNothingWritten;
    }
    // Something else at the start is refused at once, unless a Universal Exit Language
    // sequence further on starts jobs that the loop may convert (a spool file with a
    // foreign header, a PostScript job followed by PCL).
    if (!input::isConvertible(kind) && input::findUel(in.data(), in.size(), 0) == in.size()) {
        diag.error(refusal(input::describe(kind)));
        return kNothingWritten;
    }

    RasterOptions raster;
    raster.depth = options.depth;
    raster.dpiX = options.dpiX;
    raster.dpiY = options.dpiY;
    raster.pageWidthPx = options.pageWidth;
    raster.pageHeightPx = options.pageHeight;
    raster.fax = options.fax;

#if QX_HAVE_FONTS
    FontLibrary fontLibrary;
    const FontLibrary* fonts = &fontLibrary;
#else
    const FontLibrary* fonts = nullptr;
#endif

    tiff::TiffOptions tiffOptions;
    tiffOptions.compression = static_cast<tiff::Compression>(options.compression);
    tiffOptions.fax = options.fax;
    tiffOptions.software = std::string("quarvex ") + QX_VERSION;

    // A classic TIFF file ends at 4 GB. Files that outgrow it are made again as BigTIFF,
    // which fewer programs read, so it is used only when it has to be.
    std::unique_ptr<Diagnostics> rerunDiag;
    Diagnostics* d = &diag;
    auto showNewMessages = [&] {
        if (d == &diag)
            return;
        const auto& first = diag.lines();
        const auto& again = d->lines();
        for (size_t i = first.size(); i < again.size(); ++i)
            std::fprintf(stderr, "%s\n", again[i].c_str());
    };
    // The run's closing words are shown even when the interpreters used up the lines that
    // the diagnostics keep.
    auto finalError = [&](const std::string& message) {
        const size_t before = d->lines().size();
        d->error(message);
        if (d->lines().size() == before)
            std::fprintf(stderr, "quarvex: %s: %s\n", options.input.c_str(), message.c_str());
    };
    auto finalWarning = [&](const std::string& message) {
        const size_t before = d->lines().size();
        d->warning(message);
        if (d->lines().size() == before)
            std::fprintf(stderr, "quarvex: %s: %s\n", options.input.c_str(), message.c_str());
    };
    for (int attempt = 0; attempt < 2; ++attempt) {
        tiffOptions.bigTiff = attempt == 1;
        tiff::OutputFile out;
        if (!out.create(output)) {
            finalError("cannot write " + output + ": " + out.error());
            break;
        }
        tiff::TiffWriter writer(tiffOptions);
        if (!writer.open(out.fd(), output)) {
            finalError("cannot write " + output + ": " + writer.error());
            break;
        }

        // A job that stalls (an endless PostScript loop) is ended from the watchdog thread,
        // while this thread is stuck in the interpreter and no page is being handed over:
        // the pages already written are kept as a finished file, else nothing is written.
        stall::setHandler([&](const std::string& what) {
            const int pages = writer.pageCount();
            if (pages > 0 && writer.error().empty() && writer.finish() && out.commit()) {
                finalWarning(what + "; the " + std::to_string(pages) + " page(s) finished before it are written");
                ::_exit(kWrittenWithWarnings);
            }
            out.discard();
            finalError(what + (pages > 0 ? "; cannot write " + output + ": " + writer.error() + out.error()
                                         : std::string("; no page, nothing is written")));
            ::_exit(kNothingWritten);
        });
        struct DropHandler {
            ~DropHandler() { stall::setHandler(nullptr); }
        } dropHandler;

        input::JobLoopResult result;
        bool sinkFailed = false;
        {
            RasterDevice device(raster, writer);
            input::JobLoop loop(device, *d, fonts);
            loop.setRasterOptions(&raster);
            result = loop.run(in.data(), in.size());
            sinkFailed = device.sinkFailed();
        }
        bool finished = false;
        if (!sinkFailed && writer.error().empty() && writer.pageCount() > 0)
            finished = writer.finish();

        if (writer.tooLargeForClassicTiff() && attempt == 0) {
            // The second run says again what the first said; only what is new is shown.
            rerunDiag = std::make_unique<Diagnostics>(options.input, false);
            d = rerunDiag.get();
            continue;
        }
        if (sinkFailed || !writer.error().empty()) {
            finalError("cannot write " + output + ": " +
                     (writer.error().empty() ? std::string("not enough memory for a page of this size")
                                             : writer.error()));
            break;
        }
        if (writer.pageCount() == 0) {
            if (result.skippedJobs > 0)
                finalError(refusal(result.firstSkippedWhat));
            else if (kind == input::Kind::EmfSpool || kind == input::Kind::Emf)
                finalError("no page: the input looks like " + input::describe(kind) + " but prints nothing");
            else
                finalError("no page: the input prints nothing");
            break;
        }
        if (result.skippedJobs > 0) {
            finalWarning("skipped " + std::to_string(result.skippedJobs) +
                       " job(s) in a language that is not converted (the first looks like " + result.firstSkippedWhat + ")");
        }
        if (finished && !out.commit()) {
            finalError("cannot write " + output + ": " + out.error());
            finished = false;
        }
        if (!finished)
            break;
        showNewMessages();
        // Errors that an interpreter got past (a job it gave up) still leave the pages it made.
        return (warned || d->hasWarnings() || d->hasErrors()) ? kWrittenWithWarnings : kConverted;
    }
    showNewMessages();
    return kNothingWritten;
}

int runCommandLine(const std::vector<std::string>& args) {
    const ParseResult parsed = parseOptions(args);
    switch (parsed.status) {
    case ParseResult::Status::Help:
        std::fputs(usageText().c_str(), stdout);
        return kConverted;
    case ParseResult::Status::Version:
        std::fputs(versionText().c_str(), stdout);
        return kConverted;
    case ParseResult::Status::UsageError:
        std::fprintf(stderr, "quarvex: %s\n", parsed.error.c_str());
        return kUsageError;
    case ParseResult::Status::Ok:
        break;
    }
    return convert(parsed.options);
}

} // namespace qx::cli
