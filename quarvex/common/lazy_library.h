#pragma once
// A shared library that is opened the first time one of its functions is called, not when the
// engine starts. Libraries that only some pages need (cairo for wide strokes and curved fills,
// fontconfig when a font file is missing from the engine's own folder) would otherwise be
// loaded, relocated and initialised by every run, with all the libraries they bring: cairo
// alone brings pixman and the X11 client libraries, about 1.4 MB of resident memory.
//
// The library's functions keep their own names: a forwarding definition of each one the engine
// calls (QX_LAZY_FORWARD) looks the real function up once and passes the call on, so the code
// that calls them is the same as with a library linked the usual way. A function without a
// forwarder is an undefined symbol at link time, as it would be without the library.
//
// The engine's package depends on these libraries, so a missing one is an incomplete
// installation: the run ends with a message and exit status 1 (nothing written).

#include <atomic>
#include <mutex>

namespace qx {

class LazyLibrary {
public:
    // soname: the name to open (its shared-object name, "libcairo.so.2"); what: the name for
    // messages ("cairo").
    constexpr LazyLibrary(const char* soname, const char* what) : soname_(soname), what_(what) {}
    LazyLibrary(const LazyLibrary&) = delete;
    LazyLibrary& operator=(const LazyLibrary&) = delete;

    // The address of the function `name`, opening the library on the first call.
    void* function(const char* name);

    // Whether the library has been opened (by a call of one of its functions).
    bool opened() const { return handle_.load(std::memory_order_acquire) != nullptr; }

private:
    [[noreturn]] void fail(const char* doing, const char* name, const char* why) const;

    const char* soname_;
    const char* what_;
    std::once_flag once_;
    std::atomic<void*> handle_{nullptr};
};

} // namespace qx

// Defines the function `name` (as the library's header declares it) to call the library's own:
//   QX_LAZY_FORWARD(cairoLibrary, void, cairo_fill, (cairo_t* cr), (cr))
// The looked-up address is kept in a function-local static, so each function is looked up once.
#define QX_LAZY_FORWARD(library, ret, name, params, args)                                          \
    extern "C" ret name params {                                                                   \
        static const auto real = reinterpret_cast<decltype(&name)>((library).function(#name));     \
        return real args;                                                                          \
    }
