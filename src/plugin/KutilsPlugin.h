#pragma once

#include <QQmlExtensionPlugin>

class KutilsPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    explicit KutilsPlugin(QObject *parent = nullptr);

    void registerTypes(const char *uri) override;
};
