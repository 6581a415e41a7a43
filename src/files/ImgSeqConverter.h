#pragma once

#include <QObject>

// Converts numbered image sequences and normalises EXR ranges with oiiotool.
class ImgSeqConverter : public QObject
{
    Q_OBJECT

public:
    explicit ImgSeqConverter(QObject *parent = nullptr);
};
