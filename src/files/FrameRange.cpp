#include "files/FrameRange.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <limits>

namespace {

constexpr qint64 upperFrame = std::numeric_limits<int>::max();

QRegularExpressionMatch lastDigitRun(const QString &path)
{
    static const QRegularExpression digits(QStringLiteral("[0-9]+"));
    QRegularExpressionMatch last;
    for (auto it = digits.globalMatch(path); it.hasNext();)
        last = it.next();
    return last;
}

// Only a leading zero tells a padded number: "1200" could be either.
int paddingOf(const QString &run)
{
    return run.startsWith(QLatin1Char('0')) ? int(run.size()) : 1;
}

// "%01d" and "%d" name the same files; a lone "0" still reads as padded.
QString formatSpec(bool padded, int digits)
{
    return padded ? QLatin1String("%0") + QString::number(digits) + QLatin1Char('d') : QStringLiteral("%d");
}

} // namespace

QString frameFormatOf(const QString &path)
{
    const QRegularExpressionMatch last = lastDigitRun(path);
    if (!last.hasMatch())
        return path;
    const QString run = last.captured();
    return QString(path).replace(last.capturedStart(), last.capturedLength(),
                                 formatSpec(run.startsWith(QLatin1Char('0')), int(run.size())));
}

FramePattern FramePattern::fromFramePath(const QString &path)
{
    const QRegularExpressionMatch last = lastDigitRun(path);
    FramePattern pattern;
    if (!last.hasMatch())
        return pattern;
    bool ok = false;
    const QString run = last.captured();
    const qint64 start = run.toLongLong(&ok);
    if (!ok || start > upperFrame)
        return pattern;
    pattern.prefix = path.left(last.capturedStart());
    pattern.suffix = path.mid(last.capturedEnd());
    pattern.padding = paddingOf(run);
    pattern.start = start;
    pattern.valid = true;
    return pattern;
}

FramePattern FramePattern::fromFormat(const QString &format, qint64 start)
{
    static const QRegularExpression spec(QStringLiteral("%(?:0([0-9]+))?d"));
    FramePattern pattern;
    const QRegularExpressionMatch match = spec.match(format);
    if (!match.hasMatch() || start < 0 || start > upperFrame)
        return pattern;
    pattern.prefix = format.left(match.capturedStart());
    pattern.suffix = format.mid(match.capturedEnd());
    pattern.padding = match.hasCaptured(1) ? std::max(1, match.captured(1).toInt()) : 1;
    pattern.start = start;
    pattern.valid = true;
    return pattern;
}

QString FramePattern::frameName(qint64 frame) const
{
    return prefix + QString::number(frame).rightJustified(padding, QLatin1Char('0')) + suffix;
}

QString FramePattern::formatString() const
{
    return prefix + formatSpec(padding > 1, padding) + suffix;
}

bool fileExistsOnDisk(const QString &path)
{
    return QFileInfo::exists(path);
}

FrameRange searchFrameRange(const FramePattern &pattern, const FileExists &exists)
{
    if (!pattern.valid)
        return {};
    const auto present = [&](qint64 frame) { return exists(pattern.frameName(frame)); };

    qint64 first = pattern.start;
    while (first > 0 && present(first - 1))
        --first;

    // Gallop: start, start+1, start+3, start+7, ... in 64 bits, the last probe
    // clamped to the largest frame an `int` holds, so it is tested too.
    qint64 known = pattern.start - 1;
    qint64 missing = -1;
    qint64 probe = pattern.start;
    for (int exponent = 0;; exponent = std::min(exponent + 1, 62)) {
        if (!present(probe)) {
            missing = probe;
            break;
        }
        known = probe;
        if (probe == upperFrame)
            return {int(first), int(upperFrame)};
        probe = std::min(upperFrame, probe + (qint64(1) << exponent));
    }

    qint64 low = known + 1;
    qint64 high = missing - 1;
    while (low <= high) {
        const qint64 mid = low + (high - low + 1) / 2;
        if (present(mid))
            low = mid + 1;
        else
            high = mid - 1;
    }
    return {int(first), int(std::max(high, known))};
}

FrameRange findFrameRange(const QString &path, const FileExists &exists)
{
    return searchFrameRange(FramePattern::fromFramePath(path), exists);
}
