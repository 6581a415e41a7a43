#include "videoio/Reader.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace videoio {

Reader::Reader(const QString &path, bool previewReader)
    : m_path(path)
    , m_previewReader(previewReader)
{
}

Reader::~Reader() = default;

QString Reader::getPath() const
{
    return m_path;
}

QString Reader::getFile() const
{
    return QFileInfo(m_path).fileName();
}

bool Reader::IsImageSequence(const QString &path)
{
    // Only the file name counts: a folder named "100%d" holds ordinary files.
    static const QRegularExpression field(QStringLiteral("%0?\\d*d"));
    return field.match(QFileInfo(path).fileName()).hasMatch();
}

} // namespace videoio
