#pragma once

#include <QObject>

// The kinds of request NetworkRequestManager serves. QML names the values
// through the uncreatable type "NetworkRequestType".
namespace NetworkRequest {
Q_NAMESPACE

enum NetworkRequestTypes { Download = 0, CheckDownload = 1, ChunkedDownload = 2 };
Q_ENUM_NS(NetworkRequestTypes)

} // namespace NetworkRequest

using NetworkRequestTypes = NetworkRequest::NetworkRequestTypes;
