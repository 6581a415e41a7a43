#include "files/ZipExtractor.h"

#include "files/FileManagerLogging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <zip.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

namespace {

struct ZipClose
{
    void operator()(zip_t *archive) const { zip_close(archive); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipClose>;

struct ZipFileClose
{
    void operator()(zip_file_t *file) const { zip_fclose(file); }
};
using ZipFilePtr = std::unique_ptr<zip_file_t, ZipFileClose>;

bool isFolderEntry(const QString &name)
{
    return name.endsWith(QLatin1Char('/')) || name.endsWith(QLatin1Char('\\'));
}

// 4096-byte reads gather here and go out in one write per megabyte, so a
// large entry costs a few system calls rather than one per block.
constexpr qsizetype readBlock = 4096;
constexpr qsizetype writeChunk = qsizetype(1) << 20;

// A fresh name beside `target` for the bytes of an entry still being read.
QString temporaryNameFor(const QString &target)
{
    return target + QStringLiteral(".part-%1").arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0'));
}

// Copies one open entry to `target`. The file appears under its name only
// when the entry was read to its end without error. Nothing is forced to disk:
// the rename already keeps a half-written entry out of sight, and a sync per
// entry cost more than the whole decompression.
void copyEntry(zip_file_t *entry, const QString &name, const QString &target, std::vector<char> &buffer)
{
    QFile output(temporaryNameFor(target));
    if (!output.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)) {
        qCWarning(lcFileManager).noquote() << "decompressZip Failed to open output file:" << target;
        return;
    }
    const auto fail = [&](const QString &what) {
        qCWarning(lcFileManager).noquote() << what;
        output.remove();
    };
    qsizetype filled = 0;
    const auto flush = [&] {
        const bool written = output.write(buffer.data(), filled) == filled;
        filled = 0;
        return written;
    };
    zip_int64_t got = 0;
    while ((got = zip_fread(entry, buffer.data() + filled, readBlock)) > 0) {
        filled += qsizetype(got);
        if (filled + readBlock > qsizetype(buffer.size()) && !flush())
            return fail(QStringLiteral("decompressZip Failed to write output file: %1 %2")
                            .arg(target, output.errorString()));
    }
    if (got < 0)
        return fail(QStringLiteral("decompressZip Failed to read entry: %1 with error: %2")
                        .arg(name, QString::fromUtf8(zip_error_strerror(zip_file_get_error(entry)))));
    if (!flush())
        return fail(QStringLiteral("decompressZip Failed to write output file: %1 %2").arg(target, output.errorString()));
    output.close();
    std::error_code error;
    std::filesystem::rename(output.filesystemFileName(), std::filesystem::path(target.toStdU16String()), error);
    if (error)
        fail(QStringLiteral("decompressZip Failed to write output file: %1 %2")
                 .arg(target, QString::fromStdString(error.message())));
}

} // namespace

QString ZipExtractor::targetFor(const QString &outPath, const QString &name)
{
    if (name.isEmpty() || QDir::isAbsolutePath(name) || name.startsWith(QLatin1Char('/'))
        || name.startsWith(QLatin1Char('\\')))
        return {};
#ifdef Q_OS_WIN
    // Drive-relative names ("C:x") and alternate data streams.
    if (name.contains(QLatin1Char(':')))
        return {};
#endif
    const QString root = QDir::cleanPath(QDir(outPath).absolutePath());
    const QString target = QDir::cleanPath(QDir(root).filePath(name));
    if (target == root)
        return isFolderEntry(name) ? target : QString();
    const QString prefix = root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
    return target.startsWith(prefix) ? target : QString();
}

bool ZipExtractor::extract(const QString &inPath, const QString &outPath, const Callbacks &callbacks)
{
    int openError = 0;
    const ZipPtr archive(zip_open(QFile::encodeName(inPath).constData(), ZIP_RDONLY, &openError));
    if (!archive) {
        qCWarning(lcFileManager).noquote() << " decompressZip Failed to open zip file:" << inPath << " with error: "
                                     << openError;
        return false;
    }
    if (!QDir(outPath).exists() && !QDir().mkpath(outPath)) {
        qCWarning(lcFileManager).noquote() << "decompressZip Failed to recreate output directory:" << outPath;
        return false;
    }

    const int total = int(zip_get_num_entries(archive.get(), 0));
    using Clock = std::chrono::steady_clock;
    auto lastReport = Clock::now();
    std::vector<char> buffer(writeChunk);
    // Entries come grouped by folder, after the folder's own entry, so most
    // find their parent made already.
    QString madeParent;

    for (int index = 0; index < total; ++index) {
        const char *rawName = zip_get_name(archive.get(), zip_uint64_t(index), ZIP_FL_ENC_GUESS);
        if (!rawName) {
            qCWarning(lcFileManager).noquote() << "decompressZip Failed to get the name for entry" << index;
            continue;
        }
        const QString name = QString::fromUtf8(rawName);
        const QString target = targetFor(outPath, name);
        if (target.isEmpty()) {
            qCWarning(lcFileManager).noquote() << "decompressZip Refused entry outside the output directory:" << name;
            continue;
        }

        if (isFolderEntry(name)) {
            if (QDir().mkpath(target))
                madeParent = target;
            else
                qCWarning(lcFileManager).noquote() << " decompressZip Failed to create directory:" << target;
        } else if (const QString parent = QFileInfo(target).absolutePath();
                   parent != madeParent && !QDir().mkpath(parent)) {
            qCWarning(lcFileManager).noquote() << "decompressZip Failed to create parent directory:" << parent;
        } else if (const ZipFilePtr entry(zip_fopen_index(archive.get(), zip_uint64_t(index), 0)); !entry) {
            qCWarning(lcFileManager).noquote() << "Failed to open file inside zip:" << name;
        } else {
            madeParent = parent;
            copyEntry(entry.get(), name, target, buffer);
        }

        const auto now = Clock::now();
        if (now - lastReport > std::chrono::nanoseconds(500000000)) {
            if (callbacks.progress)
                callbacks.progress(index, total);
            lastReport = now;
        }
    }

    if (callbacks.progress)
        callbacks.progress(total, total);
    if (callbacks.finished)
        callbacks.finished();
    return true;
}
