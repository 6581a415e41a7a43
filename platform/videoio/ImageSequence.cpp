#include "videoio/ImageSequence.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <utility>
#include <vector>

namespace videoio {
namespace {

// (path, number) of every file of the folder that the pattern names.
std::vector<std::pair<QString, int>> matches(const QString &pattern)
{
    const QFileInfo info(pattern);
    static const QRegularExpression field(QStringLiteral("%(0?)(\\d*)d"));
    const QString name = info.fileName();
    const QRegularExpressionMatch m = field.match(name);
    if (!m.hasMatch())
        return {};
    const QString width = m.captured(2);
    // "%06d" writes exactly six digits below a million; "%d" and "%6d" any count.
    const QString digits = (!m.captured(1).isEmpty() && !width.isEmpty())
        ? QStringLiteral("(\\d{%1,})").arg(width) : QStringLiteral("(\\d+)");
    const QRegularExpression fileName(QRegularExpression::anchoredPattern(
        QRegularExpression::escape(name.left(m.capturedStart())) + digits
        + QRegularExpression::escape(name.mid(m.capturedEnd()))));

    std::vector<std::pair<QString, int>> found;
    const QDir dir = info.dir();
    for (const QString &entry : dir.entryList(QDir::Files | QDir::NoDotAndDotDot)) {
        const QRegularExpressionMatch f = fileName.match(entry);
        if (!f.hasMatch())
            continue;
        bool ok = false;
        const int number = f.captured(1).toInt(&ok);
        if (ok)
            found.emplace_back(dir.filePath(entry), number);
    }
    return found;
}

} // namespace

int ImageSequence::startNumber(const QString &pattern)
{
    int lowest = -1;
    for (const auto &[path, number] : matches(pattern)) {
        if (lowest < 0 || number < lowest)
            lowest = number;
    }
    return lowest;
}

QStringList ImageSequence::files(const QString &pattern)
{
    QStringList paths;
    for (const auto &[path, number] : matches(pattern))
        paths << path;
    return paths;
}

} // namespace videoio
