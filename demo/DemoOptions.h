#pragma once

#include <QString>
#include <QStringList>

// What the command line asks of the demo. The steps are the little script the
// QML side runs once the input is open (see Main.qml, "Script steps").
struct DemoOptions
{
    QString input;        // the video to open; empty: the generated sample
    QString mediaDir;     // where the sample, previews and thumbnails go; empty: the data folder
    QString screenshot;   // with --screenshot: the picture to write
    qint64 at = -1;       // with --screenshot: the position to show
    qint64 inMark = -1;   // preview stretch; -1: a third of the video
    qint64 outMark = -1;  // -1: two thirds of the video
    bool slowMotion = false;
    QStringList steps;    // script steps, run in order
    QString error;        // set when the command line cannot be used
    QString help;         // set when --help was asked for
};

// Parses the demo's arguments (argv[0] included). --screenshot becomes the
// steps "render", "seek <at>", "shot <file>", "quit" after any --script steps.
DemoOptions parseDemoOptions(const QStringList &arguments);

// The steps of a script text: one per line or per ";", blank lines and
// "#" comments left out.
QStringList scriptSteps(const QString &text);
