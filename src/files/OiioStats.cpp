#include "files/OiioStats.h"

#include <QRegularExpression>

#include <algorithm>

namespace oiiostats {

namespace {

// The trimmed text after `label` of every line that begins with it.
QStringList linesAfter(const QString &output, const QString &label)
{
    QStringList found;
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &raw : lines) {
        const QString line = raw.trimmed();
        if (line.startsWith(label))
            found << line.mid(label.size()).trimmed();
    }
    return found;
}

QStringList words(const QString &text)
{
    static const QRegularExpression blanks(QStringLiteral("\\s+"));
    return text.split(blanks, Qt::SkipEmptyParts);
}

} // namespace

QList<double> maxima(const QString &output)
{
    QList<double> values;
    for (QString rest : linesAfter(output, QStringLiteral("Stats Max:"))) {
        if (!rest.endsWith(QLatin1String("(float)")))
            continue;
        rest = rest.left(rest.indexOf(QLatin1Char('('))).trimmed();
        for (const QString &word : words(rest)) {
            bool ok = false;
            const double value = word.toDouble(&ok);
            if (ok)
                values << value;
        }
    }
    return values;
}

double firstWideValue(const QString &output)
{
    for (const double value : maxima(output)) {
        if (value > 1.0)
            return value;
    }
    return -1.0;
}

double sequenceMax(const QString &output)
{
    const QList<double> values = maxima(output);
    double largest = 1.0;
    for (const double value : values)
        largest = std::max(largest, value);
    return largest;
}

qint64 nonFiniteCount(const QString &output, const QString &label)
{
    qint64 total = 0;
    for (const QString &rest : linesAfter(output, label)) {
        for (const QString &word : words(rest))
            total += word.toLongLong();
    }
    return total;
}

QStringList channelList(const QString &output)
{
    const QStringList lists = linesAfter(output, QStringLiteral("channel list:"));
    if (lists.isEmpty())
        return {};
    QStringList names = lists.first().split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (QString &name : names)
        name = name.trimmed();
    return names;
}

QList<FileBlock> splitByReadingLines(const QString &output)
{
    static const QString reading = QStringLiteral("Reading ");
    QList<FileBlock> blocks;
    const QStringList lines = output.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (line.startsWith(reading))
            blocks.append({line.mid(reading.size()).trimmed(), QString()});
        else if (!blocks.isEmpty())
            blocks.last().text += line + QLatin1Char('\n');
    }
    return blocks;
}

} // namespace oiiostats
