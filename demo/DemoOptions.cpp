#include "DemoOptions.h"

#include <QCommandLineParser>
#include <QFile>
#include <QRegularExpression>

QStringList scriptSteps(const QString &text)
{
    QStringList steps;
    static const QRegularExpression separators(QStringLiteral("[;\\n]"));
    for (const QString &part : text.split(separators)) {
        const QString step = part.section(QLatin1Char('#'), 0, 0).simplified();
        if (!step.isEmpty())
            steps << step;
    }
    return steps;
}

namespace {

bool readMs(const QCommandLineParser &parser, const QCommandLineOption &option, qint64 &value, QString &error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    value = parser.value(option).toLongLong(&ok);
    if (!ok || value < 0) {
        error = QStringLiteral("--%1 wants milliseconds, not \"%2\"").arg(option.names().constFirst(),
                                                                          parser.value(option));
        return false;
    }
    return true;
}

} // namespace

DemoOptions parseDemoOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Opens a video beside rendered previews of it."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("video"),
                                 QStringLiteral("The video to open (default: a generated sample)."));
    const QCommandLineOption screenshot(QStringLiteral("screenshot"),
                                        QStringLiteral("Render a preview, seek, write a screenshot to <file> and quit."),
                                        QStringLiteral("file"));
    const QCommandLineOption at(QStringLiteral("at"), QStringLiteral("Position of the screenshot in ms."),
                                QStringLiteral("ms"));
    const QCommandLineOption inMark(QStringLiteral("in"), QStringLiteral("In mark of the preview in ms."),
                                    QStringLiteral("ms"));
    const QCommandLineOption outMark(QStringLiteral("out"), QStringLiteral("Out mark of the preview in ms."),
                                     QStringLiteral("ms"));
    const QCommandLineOption slow(QStringLiteral("slowmo"), QStringLiteral("Render previews at slow motion 2."));
    const QCommandLineOption script(QStringLiteral("script"),
                                    QStringLiteral("Run the steps of <file> (or of the text itself) after opening."),
                                    QStringLiteral("file"));
    const QCommandLineOption mediaDir(QStringLiteral("media-dir"),
                                      QStringLiteral("Folder for the sample, previews and thumbnails."),
                                      QStringLiteral("dir"));
    parser.addOptions({screenshot, at, inMark, outMark, slow, script, mediaDir});

    DemoOptions options;
    if (!parser.parse(arguments)) {
        options.error = parser.errorText();
        return options;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        options.help = parser.helpText();
        return options;
    }
    if (!readMs(parser, at, options.at, options.error) || !readMs(parser, inMark, options.inMark, options.error)
        || !readMs(parser, outMark, options.outMark, options.error))
        return options;
    if (options.inMark >= 0 && options.outMark >= 0 && options.outMark < options.inMark) {
        options.error = QStringLiteral("--out must not lie before --in");
        return options;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1) {
        options.error = QStringLiteral("one video at a time, not %1").arg(positional.size());
        return options;
    }
    options.input = positional.value(0);
    options.mediaDir = parser.value(mediaDir);
    options.slowMotion = parser.isSet(slow);

    if (parser.isSet(script)) {
        const QString value = parser.value(script);
        QFile file(value);
        // A value that names no file is the script itself: --script "seek 500; shot a.png".
        options.steps = file.open(QIODevice::ReadOnly | QIODevice::Text)
                            ? scriptSteps(QString::fromUtf8(file.readAll()))
                            : scriptSteps(value);
    }
    if (parser.isSet(screenshot)) {
        options.screenshot = parser.value(screenshot);
        options.steps << QStringLiteral("render");
        if (options.at >= 0)
            options.steps << QStringLiteral("seek %1").arg(options.at);
        else
            options.steps << QStringLiteral("seek middle");
        options.steps << QStringLiteral("shot ") + options.screenshot << QStringLiteral("quit");
    } else if (options.at >= 0) {
        options.steps << QStringLiteral("seek %1").arg(options.at);
    }
    return options;
}
