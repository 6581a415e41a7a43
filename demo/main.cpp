// The demo host: a Qt Quick application that imports the kutils module from the
// build tree and drives it only through QML (Main.qml and its components).
#include "DemoHost.h"
#include "DemoOptions.h"

#include "videoio/ThumbnailImageProvider.h"

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>

#include <clocale>
#include <cstdio>

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("kutils-demo"));
    QGuiApplication::setOrganizationName(QStringLiteral("kutils"));
    // mpv refuses to start unless numbers are formatted the C way; Qt has set
    // the locale from the environment by now.
    std::setlocale(LC_NUMERIC, "C");

    const DemoOptions options = parseDemoOptions(QCoreApplication::arguments());
    if (!options.help.isEmpty()) {
        std::fprintf(stdout, "%s", qUtf8Printable(options.help));
        return 0;
    }
    if (!options.error.isEmpty()) {
        std::fprintf(stderr, "%s\n", qUtf8Printable(options.error));
        return 2;
    }
    DemoHost host(options);

    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral(KUTILS_QML_IMPORT_DIR));
    // The engine owns the provider.
    engine.addImageProvider(QStringLiteral("thumbnail"), new videoio::ThumbnailImageProvider);
    engine.setInitialProperties({{QStringLiteral("host"), QVariant::fromValue(&host)}});
    engine.load(QUrl(QStringLiteral("qrc:/demo/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    return app.exec();
}
