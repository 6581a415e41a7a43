#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// Readers of what oiiotool prints for "--printstats", "--printinfo" and "-v".
namespace oiiostats {

// The per-channel maxima of every "Stats Max:" line. Only lines that end in
// "(float)" count: integer files print "(of 255)" and their figures are not
// the pixel values.
QList<double> maxima(const QString &output);

// The first value strictly above 1.0, or a negative number if there is none.
double firstWideValue(const QString &output);

// The largest maximum, never below 1.0.
double sequenceMax(const QString &output);

// oiiotool leaves NaN and Inf out of its maximum: the sum over the channels
// of "Stats NanCount:" or "Stats InfCount:", so that they can be reported.
qint64 nonFiniteCount(const QString &output, const QString &label);

// The channel names of the first "channel list:" line, the one of the image
// as read when "--printinfo" or "--info -v" precedes any channel selection.
QStringList channelList(const QString &output);

// One "Reading <file>" block of a "-v" run over many frames: the statistics
// name no file, the line before them does.
struct FileBlock
{
    QString file;
    QString text;
};
QList<FileBlock> splitByReadingLines(const QString &output);

} // namespace oiiostats
