// Writes a sample set of model files for the model host: every file that the
// catalogue names for the devices of this machine, as enciphered archives that
// the downloader verifies with the password.
//
//   model-set --catalogue FILE --out DIR --password TEXT
//
// Prints the names it wrote, one a line.
#include "models/XModelConfiguration.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelManager.h"
#include "aiutils/SystemInfo.h"
#include "aiutils/kzutils.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <set>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QString catalogue, out, password;
    const QStringList arguments = app.arguments();
    for (qsizetype i = 1; i + 1 < arguments.size(); i += 2) {
        if (arguments[i] == "--catalogue")
            catalogue = arguments[i + 1];
        else if (arguments[i] == "--out")
            out = arguments[i + 1];
        else if (arguments[i] == "--password")
            password = arguments[i + 1];
    }
    QFile file(catalogue);
    if (out.isEmpty() || password.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "usage: model-set --catalogue FILE --out DIR --password TEXT\n");
        return 2;
    }
    const QByteArray text = file.readAll();
    const nlohmann::json models = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (!models.is_object()) {
        std::fprintf(stderr, "model-set: %s is not a JSON object\n", qPrintable(catalogue));
        return 1;
    }
    QDir().mkpath(out);
    const aiengine::ModelManager names(QStringLiteral("shortName"), true, true, QStringLiteral("/"), QString());
    const aiengine::DeviceSelector &selector = aiengine::DeviceSelector::GetInstance();
    std::set<QString> written;
    for (const auto &[id, record] : models.items()) {
        for (int device = -1; device < selector.deviceCount(); ++device) {
            try {
                const auto files = XModelConfiguration::supportedFilesOf(record, names, selector, device,
                                                                         aiutils::SystemInfo::GetInstance().osVersion);
                for (const QString &name : files.value_or(QStringList()))
                    if (written.insert(name).second) {
                        // Contents of their own per file, so a mix-up shows.
                        QByteArray net;
                        for (int i = 0; net.size() < 256 * 1024; ++i)
                            net += QCryptographicHash::hash(name.toUtf8() + QByteArray::number(i), QCryptographicHash::Sha256);
                        if (!kzutils::saveEncryptedFile({{QStringLiteral("net.bin"), net}}, out + "/" + name, password)) {
                            std::fprintf(stderr, "model-set: could not write %s\n", qPrintable(name));
                            return 1;
                        }
                        std::printf("%s\n", qPrintable(name));
                    }
            } catch (const std::exception &error) {
                std::fprintf(stderr, "model-set: %s left out: %s\n", id.c_str(), error.what());
            }
        }
    }
    return 0;
}
