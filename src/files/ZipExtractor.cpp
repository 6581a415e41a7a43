#include "files/ZipExtractor.h"

#include "files/FileManagerLogging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <zip.h>

#include <array>
#include <chrono>
#include <memory>

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

// Copies one open entry to `target`. The file appears under its name only
// when the entry was read to its end without error.
void copyEntry(zip_file_t *entry, const QString &name, const QString &target)
{
    QSaveFile output(target);
    output.setDirectWriteFallback(false);
    if (!output.open(QIODevice::WriteOnly)) {
        qCWarning(lcFileManager).noquote() << "decompressZip Failed to open output file:" << target;
        return;
    }
    std::array<char, 4096> block{};
    zip_int64_t got = 0;
    while ((got = zip_fread(entry, block.data(), block.size())) > 0) {
        if (output.write(block.data(), got) != got) {
            qCWarning(lcFileManager).noquote() << "decompressZip Failed to write output file:" << target
                                         << output.errorString();
            output.cancelWriting();
            return;
        }
    }
    if (got < 0) {
        qCWarning(lcFileManager).noquote() << "decompressZip Failed to read entry:" << name << "with error:"
                                     << zip_error_strerror(zip_file_get_error(entry));
        output.cancelWriting();
        return;
    }
    if (!output.commit())
        qCWarning(lcFileManager).noquote() << "decompressZip Failed to write output file:" << target
                                     << output.errorString();
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
            if (!QDir().mkpath(target))
                qCWarning(lcFileManager).noquote() << " decompressZip Failed to create directory:" << target;
        } else if (!QDir().mkpath(QFileInfo(target).absolutePath())) {
            qCWarning(lcFileManager).noquote() << "decompressZip Failed to create parent directory:"
                                         << QFileInfo(target).absolutePath();
        } else if (const ZipFilePtr entry(zip_fopen_index(archive.get(), zip_uint64_t(index), 0)); !entry) {
            qCWarning(lcFileManager).noquote() << "Failed to open file inside zip:" << name;
        } else {
            copyEntry(entry.get(), name, target);
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
