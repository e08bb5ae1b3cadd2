#pragma once
// Windows EMF spool files and plain EMF metafiles: the job loop's entry point. The data starts
// at the spool header (version 0x00010000) or at the EMF header record. See common/job.h.
//
// Why our own reader and not a library: Debian 12 does carry libemf2svg (EMF to SVG), but the
// SVG it writes would then need librsvg and cairo's anti-aliased drawing to become pixels, so
// neither the printer-like unsmoothed output nor GDI's raster operations (which SVG cannot
// express) would survive, and the engine's promise about hostile input would rest on a
// library outside our fuzzing. The record formats are published by Microsoft and small;
// playing them onto the engine's own page-drawing interface gives the same rasteriser, the
// same TIFF writer and the same options as PCL.
//
// Each EMF page becomes one page. The sheet comes from the devmode record that precedes a
// spooled page (paper size and orientation), else from the metafile's picture frame. Damage
// (lengths past the end, unknown records) is reported once through ctx.diag.warning() as
// "EMF: ..." and the pages before it stay. The whole input is used: spool files carry no
// Universal Exit Language sequences.

#include "common/job.h"

namespace qx::emf {

size_t run(const uint8_t* data, size_t size, JobContext& ctx);

} // namespace qx::emf
