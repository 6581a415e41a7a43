#include "cloud/CloudAPI.h"

CloudAPI::CloudAPI(QObject *parent)
    : QObject(parent)
{
}
