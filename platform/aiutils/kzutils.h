#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QVariantMap>

// Our own container formats for model files and packed support files.
//
// A `.kz` model file is a ZIP archive whose every entry is enciphered with
// WinZip AES-256 under one password. It is verified by opening each entry with
// that password (the AES password check) and, in a full check, by reading
// every entry through to its end, where the authentication code and the CRC
// are compared.
namespace kzutils {

// Stores the named buffers in one AES-256 ZIP archive at `path`, under
// `password` (a plain archive when that is empty). The archive is built beside
// the target and renamed into place, so a failure leaves any earlier file as it
// was. False on failure or when `files` is empty.
bool saveEncryptedFile(const QMap<QString, QByteArray> &files, const QString &path, const QString &password);

// True when `bytes` hold a good `.kz` model file. `options["password"]` is the
// password of its entries. With `readThrough` every entry is decompressed to its
// end, which is the only way to see a damaged entry; without it only the
// directory, the cipher and the password are checked. `fileName` names the file
// in the log.
bool verifyCompressedBuffer(const QString &fileName, QByteArrayView bytes, const QJsonObject &options,
                            bool readThrough);
bool verifyCompressedBuffer(const QString &fileName, QByteArrayView bytes, const QVariantMap &options,
                            bool readThrough);

// Writes `bytes` to `path` through a temporary file in the same folder that is
// renamed into place, creating the folder when needed. Returns an empty text
// on success, otherwise the reason; a failed write leaves no file behind.
QString bufferToFile(QByteArrayView bytes, const QString &path);

} // namespace kzutils

namespace aiutils {
namespace kzutils = ::kzutils;
} // namespace aiutils
