#include "files/TProcess.h"

TProcess::TProcess(QObject *parent)
    : QProcess(parent)
{
}
