#include "aiutils/kzutils.h"

#include "aiutils/Logger.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <zip.h>

#include <array>
#include <memory>

namespace kzutils {

namespace {

// A writable archive is discarded unless zip_close is reached and succeeds, so
// that libzip's temporary file never replaces the target half-built.
struct ZipDiscard
{
    void operator()(zip_t *archive) const { zip_discard(archive); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipDiscard>;

struct ZipFileClose
{
    void operator()(zip_file_t *file) const { zip_fclose(file); }
};
using ZipFilePtr = std::unique_ptr<zip_file_t, ZipFileClose>;

QString errorText(zip_t *archive)
{
    return QString::fromUtf8(zip_error_strerror(zip_get_error(archive)));
}

QString errorText(int code)
{
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const QString text = QString::fromUtf8(zip_error_strerror(&error));
    zip_error_fini(&error);
    return text;
}

// Reads one entry to its end. libzip compares the CRC (and, for AES, the
// authentication code) only on the read that reaches the end, so a damaged
// entry looks good until then.
bool readEntryThrough(zip_file_t *file, zip_uint64_t expectedSize)
{
    std::array<char, 65536> block{};
    zip_uint64_t total = 0;
    zip_int64_t got = 0;
    while ((got = zip_fread(file, block.data(), block.size())) > 0)
        total += static_cast<zip_uint64_t>(got);
    return got == 0 && total == expectedSize;
}

} // namespace

bool saveEncryptedFile(const QMap<QString, QByteArray> &files, const QString &path, const QString &password)
{
    if (files.isEmpty()) {
        aiutils::Logger::Log() << "kzutils:: nothing to store in " << path;
        return false;
    }
    const QFileInfo target(path);
    if (!QDir().mkpath(target.absolutePath())) {
        aiutils::Logger::Log() << "kzutils:: cannot create folder " << target.absolutePath();
        return false;
    }

    int openError = 0;
    ZipPtr archive(zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &openError));
    if (!archive) {
        aiutils::Logger::Log() << "kzutils:: cannot create " << path << ": " << errorText(openError);
        return false;
    }

    const QByteArray key = password.toUtf8();
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        // The buffers outlive the archive handle, so libzip may read them in place at zip_close.
        zip_source_t *source = zip_source_buffer(archive.get(), it->constData(), zip_uint64_t(it->size()), 0);
        if (!source) {
            aiutils::Logger::Log() << "kzutils:: " << errorText(archive.get());
            return false;
        }
        const zip_int64_t index = zip_file_add(archive.get(), it.key().toUtf8().constData(), source,
                                               ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
        if (index < 0) {
            zip_source_free(source);
            aiutils::Logger::Log() << "kzutils:: cannot add " << it.key() << ": " << errorText(archive.get());
            return false;
        }
        if (!key.isEmpty()
            && zip_file_set_encryption(archive.get(), zip_uint64_t(index), ZIP_EM_AES_256, key.constData()) < 0) {
            aiutils::Logger::Log() << "kzutils:: cannot encrypt " << it.key() << ": " << errorText(archive.get());
            return false;
        }
    }

    if (zip_close(archive.get()) < 0) {
        aiutils::Logger::Log() << "kzutils:: cannot write " << path << ": " << errorText(archive.get());
        return false;
    }
    archive.release();
    return true;
}

bool verifyCompressedBuffer(const QString &fileName, QByteArrayView bytes, const QJsonObject &options,
                            bool readThrough)
{
    return verifyCompressedBuffer(fileName, bytes, options.toVariantMap(), readThrough);
}

bool verifyCompressedBuffer(const QString &fileName, QByteArrayView bytes, const QVariantMap &options,
                            bool readThrough)
{
    const auto reject = [&fileName](const QString &reason) {
        aiutils::Logger::Log() << "kzutils:: " << fileName << " rejected: " << reason;
        return false;
    };
    const QByteArray password = options.value(QStringLiteral("password")).toString().toUtf8();
    if (password.isEmpty())
        return reject(QStringLiteral("no password"));
    if (bytes.isEmpty())
        return reject(QStringLiteral("empty buffer"));

    zip_error_t error;
    zip_error_init(&error);
    zip_source_t *source = zip_source_buffer_create(bytes.data(), zip_uint64_t(bytes.size()), 0, &error);
    if (!source) {
        const QString text = QString::fromUtf8(zip_error_strerror(&error));
        zip_error_fini(&error);
        return reject(text);
    }
    ZipPtr archive(zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, &error));
    if (!archive) {
        zip_source_free(source);
        const QString text = QString::fromUtf8(zip_error_strerror(&error));
        zip_error_fini(&error);
        return reject(text);
    }
    zip_error_fini(&error);

    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    if (count <= 0)
        return reject(QStringLiteral("no entries"));

    for (zip_int64_t i = 0; i < count; ++i) {
        const auto index = zip_uint64_t(i);
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive.get(), index, 0, &stat) < 0)
            return reject(errorText(archive.get()));
        if (!(stat.valid & ZIP_STAT_ENCRYPTION_METHOD) || stat.encryption_method != ZIP_EM_AES_256)
            return reject(QStringLiteral("entry %1 is not AES-256 enciphered").arg(i));
        ZipFilePtr file(zip_fopen_index_encrypted(archive.get(), index, 0, password.constData()));
        if (!file)
            return reject(errorText(archive.get()));
        if (readThrough && !readEntryThrough(file.get(), stat.size))
            return reject(QStringLiteral("entry %1 is damaged: %2")
                              .arg(i)
                              .arg(QString::fromUtf8(zip_error_strerror(zip_file_get_error(file.get())))));
    }
    return true;
}

QString bufferToFile(QByteArrayView bytes, const QString &path)
{
    if (path.isEmpty())
        return QStringLiteral("No file path given");
    const QFileInfo target(path);
    if (!QDir().mkpath(target.absolutePath()))
        return QStringLiteral("Cannot create folder %1").arg(target.absolutePath());

    QSaveFile file(path);
    // A half-written model file must never be found under its final name, not
    // even on file systems where the rename is refused.
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    if (file.write(bytes.data(), bytes.size()) != bytes.size()) {
        const QString reason = file.errorString();
        file.cancelWriting();
        return reason;
    }
    if (!file.commit())
        return file.errorString();
    return {};
}

} // namespace kzutils
