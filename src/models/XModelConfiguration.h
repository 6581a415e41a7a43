#pragma once

#include <QObject>

// Selects the model files a render needs and fetches the missing ones.
class XModelConfiguration : public QObject
{
    Q_OBJECT

public:
    explicit XModelConfiguration(QObject *parent = nullptr);
};
