#include "license/RlmHandler.h"

RlmHandler::RlmHandler(QObject *parent)
    : QObject(parent)
{
}
