#include "files/ImgSeqConverter.h"

#include "files/FileManagerLogging.h"
#include "files/OiioCommand.h"
#include "files/OiioStats.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>

#include <filesystem>
#include <system_error>

namespace {

constexpr int tickIntervalMs = 250;
// Enough of the tool's error output to tell why it failed.
constexpr qsizetype errorTailChars = 2000;

const QString &sixDigits()
{
    static const QString pattern = QStringLiteral("%06d");
    return pattern;
}

// Both kinds of slash, as paths from QML may hold either.
QString folderOf(const QString &path, bool *found)
{
    static const QRegularExpression folder(QStringLiteral("(.*[\\\\/])[^\\\\/]+$"));
    const QRegularExpressionMatch match = folder.match(path);
    *found = match.hasMatch();
    return match.captured(1);
}

QString tail(const QString &text)
{
    return text.right(errorTailChars).trimmed();
}

void logRange(const FrameRange &range)
{
    qCInfo(lcFileManager).noquote().nospace() << "Converter Found Range = [ " << range.first << "," << range.last
                                              << "] => " << range.count() << " frames.";
}

// oiiotool block-buffers its "-v" lines into a pipe, so they would all arrive
// at its end; stdbuf makes them arrive as the frames are written. The command
// text stays what was logged.
void startLineBuffered(QProcess &process, const QString &command)
{
    static const QString stdbuf = QStandardPaths::findExecutable(QStringLiteral("stdbuf"));
    QStringList arguments = QProcess::splitCommand(command);
    if (arguments.isEmpty()) {
        process.startCommand(command, QIODevice::ReadWrite);
        return;
    }
    // A missing tool must still fail to start rather than look like a failed run.
    if (!stdbuf.isEmpty() && QFileInfo(arguments.first()).isExecutable()) {
        arguments.prepend(QStringLiteral("-oL"));
        process.start(stdbuf, arguments, QIODevice::ReadWrite);
        return;
    }
    const QString program = arguments.takeFirst();
    process.start(program, arguments, QIODevice::ReadWrite);
}

QString errorText(QProcess::ProcessError error)
{
    switch (error) {
    case QProcess::FailedToStart:
        return QStringLiteral("The process failed to start.");
    case QProcess::Crashed:
        return QStringLiteral("The process crashed some time after starting successfully.");
    case QProcess::Timedout:
        return QStringLiteral("The last waitFor...() function timed out.");
    case QProcess::ReadError:
        return QStringLiteral("An error occurred when attempting to read from the process.");
    case QProcess::WriteError:
        return QStringLiteral("An error occurred when attempting to write to the process.");
    default:
        return QStringLiteral("An unknown error occurred.");
    }
}

bool hasColour(const QStringList &channels)
{
    return channels.contains(QStringLiteral("R")) && channels.contains(QStringLiteral("G"))
        && channels.contains(QStringLiteral("B"));
}

void logNonFinite(const QString &tag, const QString &file, const QString &stats)
{
    const qint64 nans = oiiostats::nonFiniteCount(stats, QStringLiteral("Stats NanCount:"));
    const qint64 infs = oiiostats::nonFiniteCount(stats, QStringLiteral("Stats InfCount:"));
    if (nans > 0 || infs > 0)
        qCWarning(lcFileManager).noquote() << tag << file << "holds NaN:" << nans << "Inf:" << infs
                                           << "(left out of the maximum)";
}

std::filesystem::path nativePath(const QString &path)
{
    return std::filesystem::path(path.toStdU16String());
}

} // namespace

ImgSeqConverter::ImgSeqConverter(QObject *parent)
    : QObject(parent)
{
}

ImgSeqConverter::~ImgSeqConverter()
{
    // No process may report into a converter that is half gone.
    for (QProcess *helper : findChildren<QProcess *>(Qt::FindDirectChildrenOnly)) {
        helper->disconnect(this);
        helper->kill();
        helper->waitForFinished(1000);
    }
    for (auto &[key, record] : conversions) {
        record->process.disconnect(this);
        record->tick.disconnect(this);
        if (record->process.state() != QProcess::NotRunning) {
            record->process.kill();
            record->process.waitForFinished(1000);
        }
    }
}

// ---- Frames and records ----------------------------------------------------

FrameRange ImgSeqConverter::findFrameRange(const QString &path)
{
    const FrameRange range = ::findFrameRange(path);
    logRange(range);
    return range;
}

ImgSeqConverter::ConversionRecord *ImgSeqConverter::findRecord(const QString &key) const
{
    const auto it = conversions.find(key);
    return it == conversions.end() ? nullptr : it->second.get();
}

ImgSeqConverter::ConversionRecord &ImgSeqConverter::record(const QString &key)
{
    if (ConversionRecord *found = findRecord(key))
        return *found;
    auto &slot = conversions[key];
    slot = std::make_unique<ConversionRecord>();
    connectHandlers(*slot);
    return *slot;
}

QString ImgSeqConverter::formatted(const QString &path)
{
    return path.contains(sixDigits()) ? path : fileManager.makeFormatString(path);
}

bool ImgSeqConverter::refuse(const QString &tag, const QStringList &paths)
{
    for (const QString &path : paths) {
        const QString reason = oiiocommand::refusal(path);
        if (reason.isEmpty())
            continue;
        qCWarning(lcFileManager).noquote() << tag << "oiiotool cannot take" << path << "because it holds" << reason;
        emit processForcedClose();
        return true;
    }
    return false;
}

const QString &ImgSeqConverter::tool()
{
    // Fixed at the first call, for the life of the process.
    static const QString path = fileManager.oiiotool();
    return path;
}

// ---- Conversion ------------------------------------------------------------

void ImgSeqConverter::convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs,
                              QString postInputArgs, QString postOutputArgs)
{
    static const QString commandPrefix = QLatin1Char('"') + tool() + QStringLiteral("\" -v");
    const QString formattedInput = formatted(inputFile);
    const QString formattedOutput = oiiocommand::withInputBaseName(formattedInput, formatted(outputFile));
    if (refuse(QStringLiteral("__!__ImgSeqConverter Error:"), {formattedInput, formattedOutput}))
        return;
    const FrameRange range = findFrameRange(inputFile);
    ConversionRecord &rec = record(formattedInput);
    if (rec.process.state() != QProcess::NotRunning) {
        qCWarning(lcFileManager).noquote() << "__!__ImgSeqConverter Error: a conversion is already running for"
                                           << formattedInput;
        return;
    }
    // No digit run, or a start frame that is not there: the tool would have
    // nothing to read, or the same file over and over.
    if (range.count() < 1) {
        qCWarning(lcFileManager).noquote() << "__!__ImgSeqConverter Error: no frames to convert from" << inputFile;
        emit processForcedClose();
        return;
    }

    rec.command = oiiocommand::convertCommand(commandPrefix, range, inputArgs, formattedInput, postInputArgs,
                                              formattedOutput, postOutputArgs);
    if (rec.outputPath.isEmpty())
        rec.outputPath = oiiocommand::designedOutputPath(formattedOutput, range.first);
    rec.output = FramePattern::fromFormat(formattedOutput, range.first);
    rec.spawned = range.count();
    rec.completed = 0;
    rec.isImport = isImportConversion;
    rec.kind = ConversionRecord::Kind::Convert;
    qCInfo(lcFileManager).noquote() << "Generating conversion: " + rec.command;
    startRecord(rec);
}

void ImgSeqConverter::convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs,
                              QString postInputArgs)
{
    convert(isImportConversion, inputFile, outputFile, inputArgs, postInputArgs, QString());
}

void ImgSeqConverter::convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs)
{
    convert(isImportConversion, inputFile, outputFile, inputArgs, QString(), QString());
}

void ImgSeqConverter::convert(bool isImportConversion, QString inputFile, QString outputFile)
{
    convert(isImportConversion, inputFile, outputFile, QString(), QString(), QString());
}

int ImgSeqConverter::getIsImport(QString key)
{
    return record(key).isImport ? 1 : 0;
}

int ImgSeqConverter::getSpawned(QString key)
{
    return record(key).spawned;
}

int ImgSeqConverter::getCompleted(QString key)
{
    return record(key).completed;
}

QString ImgSeqConverter::getOutputPath(QString key)
{
    return record(key).outputPath;
}

double ImgSeqConverter::getScannedMax(QString key)
{
    const ConversionRecord *found = findRecord(key);
    return found ? found->scannedMax : 1.0;
}

void ImgSeqConverter::closeKey(QString key)
{
    const auto it = conversions.find(key);
    if (it == conversions.end())
        return;
    std::unique_ptr<ConversionRecord> rec = std::move(it->second);
    conversions.erase(it);
    rec->tick.stop();
    rec->process.disconnect(this);
    rec->tick.disconnect(this);
    const bool wasRunning = rec->process.state() != QProcess::NotRunning;
    if (wasRunning)
        rec->process.close();
    if (rec->workerThread) {
        rec->workerThread->quit();
        rec->workerThread->wait();
    }
    // QML may be calling from inside a signal of this very process: the
    // record dies once that emission has returned.
    retired.push_back(std::move(rec));
    QTimer::singleShot(0, this, [this] { retired.clear(); });
    if (wasRunning && !retired.back()->forcedCloseSent) {
        retired.back()->forcedCloseSent = true;
        emit processForcedClose();
    }
}

// ---- Process handlers ------------------------------------------------------

void ImgSeqConverter::connectHandlers(ConversionRecord &rec)
{
    ConversionRecord *const r = &rec;
    connect(&rec.process, &QProcess::started, this, [this, r] { handleStarted(*r); });
    connect(&rec.process, &QProcess::readyReadStandardOutput, this, [this, r] { probeProgress(*r, true); });
    connect(&rec.process, &QProcess::readyReadStandardError, this,
            [r] { r->errorTail = tail(r->errorTail + QString::fromUtf8(r->process.readAllStandardError())); });
    connect(&rec.process, &QProcess::finished, this,
            [this, r](int exitCode, QProcess::ExitStatus status) { handleFinished(*r, exitCode, status); });
    connect(&rec.process, &QProcess::errorOccurred, this,
            [this, r](QProcess::ProcessError error) { handleError(*r, error); });
    rec.tick.setInterval(tickIntervalMs);
    connect(&rec.tick, &QTimer::timeout, this, [this, r] { probeProgress(*r, false); });
}

void ImgSeqConverter::startRecord(ConversionRecord &rec)
{
    rec.forcedCloseSent = false;
    rec.errorTail.clear();
    startLineBuffered(rec.process, rec.command);
}

FrameRange ImgSeqConverter::framesOnDisk(const ConversionRecord &rec)
{
    return searchFrameRange(rec.output);
}

void ImgSeqConverter::probeProgress(ConversionRecord &rec, bool fromOutput)
{
    // The tool's lines only serve as a tick.
    rec.process.readAllStandardOutput();
    const FrameRange onDisk = framesOnDisk(rec);
    const int count = onDisk.count();
    // Several ticks a second for hours: only a change is worth a line.
    if (count == rec.completed && !fromOutput)
        return;
    if (count != rec.completed)
        logRange(onDisk);
    rec.completed = count;
    if (rec.kind == ConversionRecord::Kind::Normalize)
        qCInfo(lcFileManager).noquote() << "[Normalize] process running completed =" << count;
    emit subprocessCompleted();
}

void ImgSeqConverter::handleStarted(ConversionRecord &rec)
{
    if (rec.kind == ConversionRecord::Kind::Normalize) {
        qCInfo(lcFileManager).noquote() << "[Normalize] process started, completed = 1";
        rec.completed = 1;
    } else {
        rec.completed += 1;
    }
    emit commandsGenerated();
    commandStarted = true;
    rec.tick.start();
    emit subprocessCompleted();
}

void ImgSeqConverter::handleFinished(ConversionRecord &rec, int exitCode, QProcess::ExitStatus status)
{
    rec.tick.stop();
    rec.process.readAllStandardOutput();
    rec.errorTail = tail(rec.errorTail + QString::fromUtf8(rec.process.readAllStandardError()));
    const bool normalize = rec.kind == ConversionRecord::Kind::Normalize;
    if (status == QProcess::NormalExit && exitCode == 0) {
        if (normalize)
            qCInfo(lcFileManager).noquote() << "[Normalize] process finished, completed =" << int(rec.spawned);
        rec.completed = int(rec.spawned);
        emit subprocessCompleted();
        return;
    }
    // A tool that failed wrote what it wrote: the count stays what is on disk.
    rec.completed = framesOnDisk(rec).count();
    if (status == QProcess::NormalExit)
        qCWarning(lcFileManager).noquote() << (normalize ? "[Normalize] process error:" : "__!__ImgSeqConverter Error:")
                                           << "oiiotool exited with code" << exitCode << "\n" + rec.errorTail;
    emit subprocessCompleted();
    forceClose(rec);
}

void ImgSeqConverter::handleError(ConversionRecord &rec, QProcess::ProcessError error)
{
    rec.tick.stop();
    if (rec.kind == ConversionRecord::Kind::Normalize)
        qCWarning(lcFileManager).noquote() << "[Normalize] process error:" << errorText(error);
    else
        qCInfo(lcFileManager).noquote() << "__!__ImgSeqConverter Error: " + errorText(error);
    forceClose(rec);
}

void ImgSeqConverter::forceClose(ConversionRecord &rec)
{
    // A crash reports an error and then a finish: one failure, one signal.
    if (rec.forcedCloseSent)
        return;
    rec.forcedCloseSent = true;
    emit processForcedClose();
}

void ImgSeqConverter::runTool(const QString &command, ToolDone done)
{
    auto *process = new QProcess(this);
    process->setProcessChannelMode(QProcess::MergedChannels);
    auto finish = [this, process, done = std::move(done)](bool ok, int exitCode) {
        process->disconnect(this);
        const QString output = QString::fromUtf8(process->readAll());
        process->deleteLater();
        done(ok, exitCode, output);
    };
    connect(process, &QProcess::finished, this,
            [finish](int exitCode, QProcess::ExitStatus status) { finish(status == QProcess::NormalExit, exitCode); });
    connect(process, &QProcess::errorOccurred, this, [finish](QProcess::ProcessError) { finish(false, -1); });
    process->startCommand(command, QIODevice::ReadWrite);
}

// ---- Wide range ------------------------------------------------------------

void ImgSeqConverter::exrIsWideRange(QString inputFile)
{
    bool found = false;
    const QString folder = folderOf(inputFile, &found);
    if (!found) {
        qCWarning(lcFileManager).noquote() << "[WideRange]: cannot extract directory from" << inputFile;
        emit exrRangeCheckCompleted(false);
        return;
    }
    const QStringList files = QDir(folder).entryList({QStringLiteral("*.exr"), QStringLiteral("*.EXR")},
                                                     QDir::Files, QDir::Name);
    if (files.isEmpty()) {
        qCInfo(lcFileManager).noquote() << "[WideRange] no EXR files in" << folder;
        emit exrRangeCheckCompleted(false);
        return;
    }
    auto samples = std::make_shared<QStringList>();
    const qsizetype step = std::max<qsizetype>(1, files.size() / 10);
    for (qsizetype index = 0; index < files.size(); index += step)
        samples->append(QDir(folder).filePath(files.at(index)));
    testNextSample(samples, 0);
}

void ImgSeqConverter::testNextSample(std::shared_ptr<QStringList> samples, int next)
{
    if (next >= samples->size()) {
        emit exrRangeCheckCompleted(false);
        return;
    }
    const QString file = samples->at(next);
    runTool(oiiocommand::wideRangeCommand(tool(), file),
            [this, samples, next, file](bool ok, int, const QString &output) {
                if (!ok) {
                    qCWarning(lcFileManager).noquote() << "[WideRange]" << file << " processor failed";
                    emit processForcedClose();
                    return;
                }
                logNonFinite(QStringLiteral("[WideRange]"), file, output);
                const double wide = oiiostats::firstWideValue(output);
                if (wide > 1.0) {
                    qCInfo(lcFileManager).noquote() << "[WideRange] IS WIDE RANGE: Stats Max value: " +
                            oiiocommand::number(wide);
                    emit exrRangeCheckCompleted(true);
                    return;
                }
                qCInfo(lcFileManager).noquote() << "[WideRange] NOT WIDE RANGE";
                testNextSample(samples, next + 1);
            });
}

// ---- Normalisation ---------------------------------------------------------

void ImgSeqConverter::normalizeExr(QString inputPath, QString outputPath)
{
    qCInfo(lcFileManager).noquote() << "[SequenceMax] starting:" << inputPath;
    const QString formattedInput = formatted(inputPath);
    ConversionRecord &rec = record(formattedInput);
    if (rec.process.state() != QProcess::NotRunning) {
        qCWarning(lcFileManager).noquote() << "[SequenceMax] a normalization is already running for"
                                           << formattedInput;
        return;
    }
    rec.isImport = true;
    rec.scannedMax = 1.0;
    bool found = false;
    const QString folder = folderOf(inputPath, &found);
    if (!found) {
        qCWarning(lcFileManager).noquote() << "[SequenceMax] cannot extract directory from" << inputPath;
        emit processForcedClose();
        return;
    }
    if (refuse(QStringLiteral("[SequenceMax]"), {formattedInput, formatted(outputPath)}))
        return;
    // Only the frames of this sequence, not every EXR file that shares its folder.
    const FrameRange range = findFrameRange(inputPath);
    if (range.count() < 1) {
        qCWarning(lcFileManager).noquote() << "[SequenceMax] no EXR files in" << folder;
        emit processForcedClose();
        return;
    }
    const FramePattern frames = FramePattern::fromFramePath(inputPath);
    // One process reads the whole sequence: a process per file costs a quarter
    // of a second each.
    runTool(oiiocommand::maxScanCommand(tool(), range, frames.formatString()),
            [this, range, frames, formattedInput, inputPath, outputPath](bool ok, int exitCode,
                                                                         const QString &output) {
                const QList<oiiostats::FileBlock> blocks = oiiostats::splitByReadingLines(output);
                double maxValue = 1.0;
                qsizetype read = 0;
                for (const oiiostats::FileBlock &block : blocks) {
                    if (!block.text.contains(QLatin1String("Stats Max:")))
                        break;
                    ++read;
                    logNonFinite(QStringLiteral("[SequenceMax]"), block.file, block.text);
                    maxValue = std::max(maxValue, oiiostats::sequenceMax(block.text));
                }
                // A batch stops at the first frame it cannot read: a partial
                // maximum must not lead to a normalisation.
                if (!ok || exitCode != 0 || read < range.count()) {
                    qCWarning(lcFileManager).noquote()
                        << "[SequenceMax] process error on" << frames.frameName(range.first + read)
                        << "exit code" << exitCode << "\n" + tail(output);
                    emit processForcedClose();
                    return;
                }
                const QStringList channels = oiiostats::channelList(blocks.first().text);
                if (!hasColour(channels)) {
                    qCWarning(lcFileManager).noquote() << "[SequenceMax] no R, G, B channels in" << blocks.first().file
                                                       << "but" << channels.join(QLatin1Char(','));
                    emit processForcedClose();
                    return;
                }
                qCInfo(lcFileManager).noquote() << "[SequenceMax] overall maxRGB value=" << maxValue;
                if (ConversionRecord *rec = findRecord(formattedInput)) {
                    rec->scannedMax = maxValue;
                    rec->hasAlpha = channels.contains(QStringLiteral("A"));
                }
                normalizeWithRange(inputPath, outputPath, 0.0, maxValue);
            });
}

void ImgSeqConverter::normalizeWithRange(QString inputPath, QString outputPath, double min, double max)
{
    qCInfo(lcFileManager).noquote() << "[Normalize] Starting normalization:" << inputPath << outputPath << min
                                    << max;
    const QString formattedInput = formatted(inputPath);
    const QString formattedOutput = formatted(outputPath);
    const FrameRange range = findFrameRange(inputPath);
    qCInfo(lcFileManager).noquote() << "[Normalize] frame range:" << range.first << range.last << range.count();
    if (range.count() < 1) {
        qCWarning(lcFileManager).noquote() << "[Normalize] no frames to process!";
        return;
    }
    ConversionRecord *rec = findRecord(formattedInput);
    if (!rec) {
        qCWarning(lcFileManager).noquote() << "[Normalize] was cancelled!";
        emit processForcedClose();
        return;
    }
    rec->spawned = range.count();
    rec->completed = 0;
    rec->isImport = true;
    rec->kind = ConversionRecord::Kind::Normalize;
    const double scale = max - min == 0.0 ? 1.0 : max - min;
    rec->command = oiiocommand::normalizeCommand(tool(), range, formattedInput, formattedOutput, min, scale,
                                                 rec->hasAlpha);
    rec->outputPath = QString(formattedOutput)
                          .replace(sixDigits(), QString::number(range.first).rightJustified(6, QLatin1Char('0')));
    rec->output = FramePattern::fromFormat(formattedOutput, range.first);
    qCInfo(lcFileManager).noquote() << "[Normalize] command:" << rec->command;
    startRecord(*rec);
}

// ---- Stretch ---------------------------------------------------------------

void ImgSeqConverter::stretchExr(QString inputPath, double min, double max)
{
    qCInfo(lcFileManager).noquote() << "[StretchExr] options: " << inputPath << min << max;
    if (refuse(QStringLiteral("[StretchExr]"), {inputPath}))
        return;
    const QString baseFolder = QFileInfo(inputPath).absolutePath();
    const QString tempFolder = baseFolder + QStringLiteral("/tmp_stretch");
    // The pattern of a real frame path: six-digit names alone would miss
    // "frame_000001.exr".
    const QString inputPattern = formatted(inputPath);
    QString sample = inputPath;
    if (inputPath.contains(sixDigits())) {
        const QStringList files = QDir(baseFolder).entryList({QStringLiteral("*.exr"), QStringLiteral("*.EXR")},
                                                             QDir::Files, QDir::Name);
        if (!files.isEmpty())
            sample = QDir(baseFolder).filePath(files.first());
    }
    const FrameRange range = findFrameRange(sample);
    qCInfo(lcFileManager).noquote() << "[StretchExr] frame range:" << range.first << range.last << range.count();
    if (range.count() < 1) {
        qCWarning(lcFileManager).noquote() << "[StretchExr] no frames to process!";
        return;
    }
    QDir(tempFolder).removeRecursively();
    QDir().mkpath(tempFolder);
    const FramePattern source = FramePattern::fromFormat(inputPattern, range.first);
    const QString tempPattern = tempFolder + QLatin1Char('/') + QFileInfo(inputPattern).fileName();
    const FramePattern temp = FramePattern::fromFormat(tempPattern, range.first);
    const float scale = float(max - min) == 0.0f ? 1.0f : float(max - min);
    const QString firstFrame = source.frameName(range.first);

    // Whether there is an alpha to carry over decides the command.
    runTool(oiiocommand::channelProbeCommand(tool(), firstFrame), [=, this](bool ok, int exitCode,
                                                                            const QString &info) {
        const QStringList channels = oiiostats::channelList(info);
        if (!ok || exitCode != 0 || !hasColour(channels)) {
            qCWarning(lcFileManager).noquote() << "[StretchExr] no R, G, B channels in" << firstFrame << "\n" +
                    tail(info);
            emit subprocessCompleted();
            return;
        }
        const QString command = oiiocommand::stretchCommand(tool(), range, inputPattern, tempPattern, min, scale,
                                                            channels.contains(QStringLiteral("A")));
        qCInfo(lcFileManager).noquote() << "[StretchExr] command:" << command;
        runTool(command, [=, this](bool ran, int code, const QString &output) {
            qCInfo(lcFileManager).noquote() << "[StretchExr] finished with exitcode: " + QString::number(code);
            if (!ran || code != 0) {
                qCWarning(lcFileManager).noquote() << "[StretchExr] oiiotool failed with exit code:" << code
                                                   << "\n" + tail(output);
                emit subprocessCompleted();
                return;
            }
            qCInfo(lcFileManager).noquote() << "[StretchExr] processing complete. Replacing original files...";
            replaceStretchedFrames(source, temp, range, tempFolder);
        });
    });
}

void ImgSeqConverter::replaceStretchedFrames(const FramePattern &source, const FramePattern &temp,
                                             const FrameRange &range, const QString &tempFolder)
{
    // Every frame is checked before any source is touched.
    for (qint64 frame = range.first; frame <= range.last; ++frame) {
        if (!fileExistsOnDisk(temp.frameName(frame))) {
            qCWarning(lcFileManager).noquote() << "[StretchExr] Missing frame:" << temp.frameName(frame);
            emit subprocessCompleted();
            return;
        }
    }
    for (qint64 frame = range.first; frame <= range.last; ++frame) {
        std::error_code error;
        // Replaces the source in one step, where a copy or remove-then-rename could lose it.
        std::filesystem::rename(nativePath(temp.frameName(frame)), nativePath(source.frameName(frame)), error);
        if (error) {
            qCWarning(lcFileManager).noquote() << "[StretchExr] could not replace" << source.frameName(frame) << ":"
                                               << QString::fromStdString(error.message());
            emit subprocessCompleted();
            return;
        }
    }
    QDir(tempFolder).removeRecursively();
    qCInfo(lcFileManager).noquote() << "[StretchExr] Temp directory cleaned:" << tempFolder;
}
