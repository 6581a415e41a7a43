#include "files/OiioCommand.h"

#include <QRegularExpression>
#include <QStringList>

namespace oiiocommand {

namespace {

// Appends the alpha channel of a second read of the input, unchanged. A
// missing alpha would come back as a zero "channel3", so it is left out.
QString alphaAppend(const QString &in, bool alpha)
{
    return alpha ? QLatin1Char(' ') + quoted(in) + QStringLiteral(" --ch A --chappend") : QString();
}

QString toolFrames(const QString &tool, const FrameRange &range)
{
    return quoted(tool) + QStringLiteral(" -v ") + framesArgument(range);
}

} // namespace

QString quoted(const QString &path)
{
    return QLatin1Char('"') + path + QLatin1Char('"');
}

QString number(double value)
{
    return QString::number(value, 'g', 6);
}

QString framesArgument(const FrameRange &range)
{
    return QStringLiteral("--frames ") + QString::number(range.first) + QLatin1Char('-')
        + QString::number(range.last);
}

QString withInputBaseName(const QString &formattedInput, const QString &formattedOutput)
{
    static const QRegularExpression baseName(QStringLiteral("[^/]+(?=\\.[^./]+$)"));
    const QString name = baseName.match(formattedInput).captured();
    QString output = formattedOutput;
    return output.replace(baseName, name);
}

QString convertCommand(const QString &prefix, const FrameRange &range, const QString &inputArgs,
                       const QString &formattedInput, const QString &postInputArgs,
                       const QString &formattedOutput, const QString &postOutputArgs)
{
    return QStringList{prefix, framesArgument(range), inputArgs, quoted(formattedInput), postInputArgs,
                       quoted(formattedOutput), postOutputArgs}
        .join(QLatin1Char(' '));
}

QString designedOutputPath(const QString &formattedOutput, int first)
{
    static const QRegularExpression fromPattern(QStringLiteral("%[0]*[0-9]*d.*"));
    static const QRegularExpression toPattern(QStringLiteral(".*%[0]*[0-9]*d"));
    const QString prefix = QString(formattedOutput).remove(fromPattern);
    const QString suffix = QString(formattedOutput).remove(toPattern);
    QString padding;
    if (first < 10 || first >= 1000000)
        padding = QStringLiteral("00000");
    else if (first < 100)
        padding = QStringLiteral("0000");
    else if (first < 1000)
        padding = QStringLiteral("000");
    else if (first < 10000)
        padding = QStringLiteral("00");
    else if (first < 100000)
        padding = QStringLiteral("0");
    return prefix + padding + QString::number(first) + suffix;
}

QString refusal(const QString &path)
{
    static const QRegularExpression frameSpec(QStringLiteral("%(?:0[0-9]+)?d"));
    if (path.contains(QLatin1Char('"')))
        return QStringLiteral("a double quote");
    if (path.contains(QLatin1Char('#')) || path.contains(QLatin1Char('@')))
        return QStringLiteral("a frame wildcard ('#' or '@')");
    if (QString(path).remove(frameSpec).contains(QLatin1Char('%')))
        return QStringLiteral("a '%' that is not the frame pattern");
    return {};
}

QString normalizeCommand(const QString &tool, const FrameRange &range, const QString &in, const QString &out,
                         double min, double scale, bool alpha)
{
    return toolFrames(tool, range) + QLatin1Char(' ') + quoted(in) + QStringLiteral(" --ch R,G,B --subc ")
        + number(min) + QStringLiteral(" --divc ") + number(scale) + alphaAppend(in, alpha)
        + QStringLiteral(" -o ") + quoted(out);
}

QString stretchCommand(const QString &tool, const FrameRange &range, const QString &in, const QString &temp,
                       double min, float scale, bool alpha)
{
    // The output comes last: before the appended alpha it would write the
    // colour channels alone.
    return toolFrames(tool, range) + QLatin1Char(' ') + quoted(in) + QStringLiteral(" --ch R,G,B --mulc ")
        + number(scale) + QStringLiteral(" --addc ") + number(min) + alphaAppend(in, alpha)
        + QStringLiteral(" -o ") + quoted(temp);
}

QString maxScanCommand(const QString &tool, const FrameRange &range, const QString &in)
{
    return toolFrames(tool, range) + QLatin1Char(' ') + quoted(in)
        + QStringLiteral(" --printinfo --ch R,G,B --printstats");
}

QString wideRangeCommand(const QString &tool, const QString &file)
{
    return quoted(tool) + QLatin1Char(' ') + quoted(file) + QStringLiteral(" --ch R,G,B --printstats");
}

QString channelProbeCommand(const QString &tool, const QString &file)
{
    return quoted(tool) + QStringLiteral(" --info -v ") + quoted(file);
}

} // namespace oiiocommand
