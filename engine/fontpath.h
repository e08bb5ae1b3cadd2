#pragma once

#include <QByteArray>
#include <QString>

// Size of the one static buffer that holds the PCLFONTSOURCE entry handed to putenv,
// terminating zero included.
constexpr int kFontSourceEntrySize = 1024;

// The environment entry "PCLFONTSOURCE=<dir>fonts/" for an application directory: <dir> is the
// folder that contains the application bundle, found by cutting the directory before its last
// "." and then before its last "/". Latin-1, backslashes turned into "/".
// A directory that leaves nothing after the two cuts (a bundle in the file-system root) gives
// "/". An entry that would not fit the buffer is given with an empty value, "PCLFONTSOURCE=",
// so that the engine falls back to its own fonts folder rather than a truncated path.
QByteArray FontSourceEntry(const QString& strAppDir);
