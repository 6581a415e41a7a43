#include "files/ImgSeqConverter.h"

ImgSeqConverter::ImgSeqConverter(QObject *parent)
    : QObject(parent)
{
}
