#pragma once

#include <QString>

#include <functional>

// Unpacks one ZIP archive into a folder, entry by entry. A failed entry is
// logged and skipped; an entry whose path would leave the output folder
// (absolute names, ".." segments) counts as a failed entry, so nothing is ever
// written outside it. An entry is written under a temporary name and renamed
// only when it was read to its end, because a damaged entry shows its bad CRC
// only on the last read.
class ZipExtractor
{
public:
    struct Callbacks
    {
        // (entries done, entries in all), at most twice a second, and once more
        // with both equal to the entry count at the end.
        std::function<void(int completed, int total)> progress;
        // All entries were tried; the archive is still open when it is called.
        std::function<void()> finished;
    };

    // False, with a log line and no callback, when the archive cannot be opened
    // or the output folder cannot be made.
    static bool extract(const QString &inPath, const QString &outPath, const Callbacks &callbacks);

    // Where entry `name` goes inside `outPath`, or an empty text when it would
    // land outside. A folder entry may name `outPath` itself.
    static QString targetFor(const QString &outPath, const QString &name);
};
