// fontconfig, opened when a resident font's file is missing from the engine's font folders and
// fontconfig has to find a stand-in: with the engine's own fonts installed it is never needed.
// Each fontconfig function the engine calls is forwarded here.

#include "common/lazy_library.h"

#include <fontconfig/fontconfig.h>

namespace {
qx::LazyLibrary fontconfigLibrary(QX_FONTCONFIG_SONAME, "fontconfig");
} // namespace

QX_LAZY_FORWARD(fontconfigLibrary, FcConfig*, FcInitLoadConfigAndFonts, (void), ())
QX_LAZY_FORWARD(fontconfigLibrary, void, FcConfigDestroy, (FcConfig* config), (config))
QX_LAZY_FORWARD(fontconfigLibrary, FcPattern*, FcPatternCreate, (void), ())
QX_LAZY_FORWARD(fontconfigLibrary, void, FcPatternDestroy, (FcPattern* p), (p))
QX_LAZY_FORWARD(fontconfigLibrary, FcBool, FcPatternAddString,
                (FcPattern* p, const char* object, const FcChar8* s), (p, object, s))
QX_LAZY_FORWARD(fontconfigLibrary, FcResult, FcPatternGetString,
                (const FcPattern* p, const char* object, int n, FcChar8** s), (p, object, n, s))
QX_LAZY_FORWARD(fontconfigLibrary, FcBool, FcConfigSubstitute,
                (FcConfig* config, FcPattern* p, FcMatchKind kind), (config, p, kind))
QX_LAZY_FORWARD(fontconfigLibrary, void, FcDefaultSubstitute, (FcPattern* pattern), (pattern))
QX_LAZY_FORWARD(fontconfigLibrary, FcPattern*, FcFontMatch,
                (FcConfig* config, FcPattern* p, FcResult* result), (config, p, result))
