// The demo host: a Qt Quick application that imports the kutils module from the
// build tree and drives it only through QML.
#include <QCommandLineParser>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickWindow>
#include <QTimer>

#include <clocale>

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("kutils-demo"));
    // mpv refuses to start unless numbers are formatted the C way.
    std::setlocale(LC_NUMERIC, "C");

    QCommandLineParser parser;
    parser.addHelpOption();
    QCommandLineOption screenshot(QStringLiteral("screenshot"),
                                  QStringLiteral("Write a screenshot of the window to <file> and quit."),
                                  QStringLiteral("file"));
    parser.addOption(screenshot);
    parser.process(app);

    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
    engine.load(QUrl(QStringLiteral("qrc:/demo/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;

    if (parser.isSet(screenshot)) {
        auto *window = qobject_cast<QQuickWindow *>(engine.rootObjects().constFirst());
        const QString file = parser.value(screenshot);
        QObject::connect(window, &QQuickWindow::frameSwapped, &app, [window, file] {
            static bool done = false;
            if (done)
                return;
            done = true;
            QTimer::singleShot(200, window, [window, file] {
                const bool saved = window->grabWindow().save(file);
                qInfo().noquote() << (saved ? "Screenshot written to" : "Could not write screenshot to") << file;
                QCoreApplication::exit(saved ? 0 : 1);
            });
        });
    }
    return app.exec();
}
