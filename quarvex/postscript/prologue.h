#pragma once
// The PostScript that the engine runs in Ghostscript before any job: the resolution rule, the
// page report and the job runner (see prologue.cpp).

namespace qx::postscript {

const char* prologue();

} // namespace qx::postscript
