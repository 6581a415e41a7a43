#pragma once

#include <QString>
#include <QStringList>

namespace videoio {

// The frames on disk of a numbered image sequence given as a printf pattern
// ("shot_%06d.png", "frame%d.exr").
class ImageSequence
{
public:
    // The lowest frame number present, -1 when no file matches. FFmpeg's
    // sequence demuxer only probes the first few numbers by itself, so
    // sequences starting at 1001 need this.
    static int startNumber(const QString &pattern);
    // Paths of the files that match, in no particular order.
    static QStringList files(const QString &pattern);
};

} // namespace videoio
