#include "common/lazy_library.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace qx {

void* LazyLibrary::function(const char* name) {
    std::call_once(once_, [this] {
        // RTLD_LOCAL: the library's symbols serve the lookups below, not other libraries.
        void* handle = ::dlopen(soname_, RTLD_NOW | RTLD_LOCAL);
        if (!handle)
            fail("cannot load", nullptr, ::dlerror());
        handle_.store(handle, std::memory_order_release);
    });
    void* fn = ::dlsym(handle_.load(std::memory_order_acquire), name);
    if (!fn)
        fail("cannot find", name, ::dlerror());
    return fn;
}

void LazyLibrary::fail(const char* doing, const char* name, const char* why) const {
    std::fprintf(stderr, "quarvex: %s %s%s%s (%s): %s\n", doing, name ? name : "", name ? " in " : "",
                 what_, soname_, why ? why : "not found");
    std::exit(1);
}

} // namespace qx
