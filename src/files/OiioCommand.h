#pragma once

#include "files/FrameRange.h"

#include <QString>

// The oiiotool command lines of the converter, as text: built here so that
// they can be checked without running anything.
namespace oiiocommand {

QString quoted(const QString &path);
// Six significant digits: 1234567.0 enters a command as "1.23457e+06".
QString number(double value);
QString framesArgument(const FrameRange &range);

// The output takes the base name of the input; only the folder and the
// extension of the output survive.
QString withInputBaseName(const QString &formattedInput, const QString &formattedOutput);

// `"<tool>" -v --frames a-b <inputArgs> "<in>" <postInputArgs> "<out>" <postOutputArgs>`,
// empty arguments keeping their blanks.
QString convertCommand(const QString &prefix, const FrameRange &range, const QString &inputArgs,
                       const QString &formattedInput, const QString &postInputArgs,
                       const QString &formattedOutput, const QString &postOutputArgs);

// The first output frame's name padded to six digits whatever the pattern
// says, and from 1000000 up with five zeros again.
QString designedOutputPath(const QString &formattedOutput, int first);

// Why oiiotool cannot take the path, or an empty text: a double quote breaks
// the command's quoting, and '#', '@' or a '%' other than the frame pattern
// are frame wildcards to the tool, which then aborts.
QString refusal(const QString &path);

QString normalizeCommand(const QString &tool, const FrameRange &range, const QString &in, const QString &out,
                         double min, double scale, bool alpha);
QString stretchCommand(const QString &tool, const FrameRange &range, const QString &in, const QString &temp,
                       double min, float scale, bool alpha);
// Prints, for each frame, its channels as read and then the colour statistics.
QString maxScanCommand(const QString &tool, const FrameRange &range, const QString &in);
QString wideRangeCommand(const QString &tool, const QString &file);
QString channelProbeCommand(const QString &tool, const QString &file);

} // namespace oiiocommand
