#pragma once

// Fingerprints of decoded pictures, to tell frames apart and compare a seek's
// result with a full sequential decode.

#include "videoio/FFReader.h"

#include <QCryptographicHash>
#include <QList>
#include <QVideoFrame>

namespace videoio::testing {

// The visible bytes of the reader's current picture, row by row: row padding
// is left out, since it carries nothing a viewer sees.
inline QByteArray frameHash(const std::shared_ptr<QVideoFrame> &frame)
{
    if (!frame)
        return {};
    QVideoFrame copy = *frame;
    if (!copy.map(QVideoFrame::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Md5);
    const int rowBytes = copy.width() * 4;
    for (int y = 0; y < copy.height(); ++y)
        hash.addData(QByteArrayView(copy.bits(0) + y * copy.bytesPerLine(0), rowBytes));
    copy.unmap();
    return hash.result();
}

inline QByteArray frameHash(Reader &reader)
{
    return frameHash(reader.frame());
}

struct Decoded
{
    QList<QByteArray> hashes;
    QList<qlonglong> positions;
};

// Every picture of a file, in order, by plain sequential decoding.
inline Decoded decodeAll(const QString &path)
{
    Decoded all;
    FFReader reader(path);
    if (!reader.isOpen())
        return all;
    do {
        all.hashes << frameHash(reader);
        all.positions << reader.position();
    } while (reader.next());
    return all;
}

} // namespace videoio::testing
