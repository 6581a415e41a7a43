#pragma once

#include "files/FrameRange.h"
#include "files/TFileManager.h"

#include <QObject>
#include <QProcess>
#include <QString>
#include <QTimer>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

class QThread;

// Converts numbered image sequences with oiiotool, one child process for the
// whole sequence, and measures progress by looking for the output frames on
// disk. Also tells whether an EXR sequence is wide range, squeezes it into 0
// to 1 and stretches a result back.
//
// Everything runs on the owning thread through process signals.
class ImgSeqConverter : public QObject
{
    Q_OBJECT

public:
    // One conversion or normalisation, under the formatted input path. The
    // process and the counters cannot move, so the map holds records by
    // pointer.
    struct ConversionRecord
    {
        enum class Kind { Convert, Normalize };

        std::atomic<int> spawned{0};
        std::atomic<int> completed{0};
        QString command;
        QProcess process;
        QString outputPath;
        QThread *workerThread = nullptr;
        bool isImport = false;

        Kind kind = Kind::Convert;
        // What progress probes: the output pattern as the tool reads it.
        FramePattern output;
        QTimer tick;
        QString errorTail;
        bool forcedCloseSent = false;
        bool hasAlpha = true;
        double scannedMax = 1.0;
    };

    explicit ImgSeqConverter(QObject *parent = nullptr);
    ~ImgSeqConverter() override;

    // Logs the range it finds.
    static FrameRange findFrameRange(const QString &path);

    Q_INVOKABLE double getScannedMax(QString key);

public slots:
    void convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs,
                 QString postInputArgs, QString postOutputArgs);
    void convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs,
                 QString postInputArgs);
    void convert(bool isImportConversion, QString inputFile, QString outputFile, QString inputArgs);
    void convert(bool isImportConversion, QString inputFile, QString outputFile);

    int getIsImport(QString key);
    int getSpawned(QString key);
    int getCompleted(QString key);
    QString getOutputPath(QString key);
    void closeKey(QString key);

    void exrIsWideRange(QString inputFile);
    void normalizeExr(QString inputPath, QString outputPath);
    void stretchExr(QString inputPath, double min, double max);

signals:
    void subprocessCompleted();
    void commandsGenerated();
    void processForcedClose();
    void exrRangeCheckCompleted(bool status);

private:
    using ToolDone = std::function<void(bool ok, int exitCode, const QString &output)>;

    ConversionRecord &record(const QString &key);
    ConversionRecord *findRecord(const QString &key) const;
    QString formatted(const QString &path);
    bool refuse(const QString &tag, const QStringList &paths);

    void connectHandlers(ConversionRecord &record);
    void startRecord(ConversionRecord &record);
    void probeProgress(ConversionRecord &record, bool fromOutput);
    static FrameRange framesOnDisk(const ConversionRecord &record);
    const QString &tool();
    void handleStarted(ConversionRecord &record);
    void handleFinished(ConversionRecord &record, int exitCode, QProcess::ExitStatus status);
    void handleError(ConversionRecord &record, QProcess::ProcessError error);
    void forceClose(ConversionRecord &record);

    // Runs one helper command to its end and calls `done` exactly once, also
    // when it fails to start or crashes.
    void runTool(const QString &command, ToolDone done);

    void testNextSample(std::shared_ptr<QStringList> samples, int next);
    void normalizeWithRange(QString inputPath, QString outputPath, double min, double max);
    void replaceStretchedFrames(const FramePattern &source, const FramePattern &temp, const FrameRange &range,
                                const QString &tempFolder);

    std::map<QString, std::unique_ptr<ConversionRecord>> conversions;
    // Closed records wait here until their own process signal has returned.
    std::vector<std::unique_ptr<ConversionRecord>> retired;
    TFileManager fileManager;
    std::atomic<bool> commandStarted{false};
};
