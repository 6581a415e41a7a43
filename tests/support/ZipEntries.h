#pragma once

#include <QFile>
#include <QMap>
#include <QSet>
#include <QString>

#include <zip.h>

#include <memory>

struct ZipDiscard
{
    void operator()(zip_t *archive) const { zip_discard(archive); }
};

// The entries of an archive on disk as libzip reads them with `pass`; an entry
// that fails to open or read comes back as a null array. `methods` collects
// the entries' encryption methods.
inline QMap<QString, QByteArray> unpack(const QString &path, const QByteArray &pass, QSet<int> *methods = nullptr)
{
    QMap<QString, QByteArray> entries;
    std::unique_ptr<zip_t, ZipDiscard> archive(zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY, nullptr));
    if (!archive)
        return entries;
    zip_set_default_password(archive.get(), pass.isEmpty() ? nullptr : pass.constData());
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive.get(), 0); ++i) {
        const QString name = QString::fromUtf8(zip_get_name(archive.get(), zip_uint64_t(i), 0));
        if (zip_stat_t stat; methods && zip_stat_index(archive.get(), zip_uint64_t(i), 0, &stat) == 0)
            methods->insert(stat.encryption_method);
        zip_file_t *file = zip_fopen_index(archive.get(), zip_uint64_t(i), 0);
        QByteArray data;
        if (file) {
            char block[8192];
            zip_int64_t got = 0;
            while ((got = zip_fread(file, block, sizeof block)) > 0)
                data.append(block, got);
            zip_fclose(file);
            if (got < 0)
                data = QByteArray();
        }
        entries.insert(name, data);
    }
    return entries;
}
