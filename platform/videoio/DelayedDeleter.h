#pragma once

#include <QString>

namespace videoio {

// Removal of files and folders that the readers may still hold. DeleteLater
// runs on a worker thread of its own, so no caller ever waits for a reader.
class DelayedDeleter
{
public:
    // Removes a file, or a folder with its content, at once. An image sequence
    // pattern removes every frame of the sequence. Returns whether nothing is
    // left at `path`.
    static bool DeleteNow(const QString &path);
    // Removes `path` after `seconds` seconds, and later still while a reader
    // holds it open: the deleter looks again every second, for at most a
    // minute past the delay, and then gives up with a log line.
    static void DeleteLater(const QString &path, int seconds);
};

} // namespace videoio
