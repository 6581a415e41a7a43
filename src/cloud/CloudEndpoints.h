#pragma once

#include <httplib.h>

#include <string>

// Where the calls of the cloud client go, and how they are sent.
namespace CloudEndpoints {

// KVID_DEVELOPER_MODE exactly "1", read at each call.
bool developerMode();

std::string videoApiUrl();
// accountApiStaging, else the production name with "-staging" after its first label.
std::string accountApiUrl(bool staging);
std::string apiKey(bool staging);

struct Request
{
    std::string method;        // GET, POST, PATCH, DELETE
    std::string url;           // endpoint and path, any base path of the endpoint included
    httplib::Headers headers;
    std::string token;         // bearer; empty: none
    std::string body;
    std::string contentType;
    int connectTimeout = -1;   // seconds; -1 keeps the library's
    int readTimeout = -1;
};

// Through the shared HttpClientFactory; an empty result means no response.
httplib::Result send(const Request &request);

// "https://host[:port]/path": a storage URL of an upload or download. The port
// is the one the host names, else 443.
struct StorageTarget
{
    std::string host;
    int port = 443;
    std::string path;
};
bool splitStorageUrl(const std::string &url, StorageTarget &target);

} // namespace CloudEndpoints
