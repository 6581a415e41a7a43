#include "cloud/CloudEndpoints.h"

#include "plugin/Configuration.h"
#include "plugin/HttpClientFactory.h"

#include <regex>

namespace CloudEndpoints {

bool developerMode()
{
    return qEnvironmentVariable("KVID_DEVELOPER_MODE") == QLatin1String("1");
}

std::string videoApiUrl()
{
    const Configuration &config = Configuration::instance();
    return (developerMode() ? config.videoApiStaging : config.videoApiProduction).toStdString();
}

std::string accountApiUrl(bool staging)
{
    const Configuration &config = Configuration::instance();
    if (!staging)
        return config.accountApiProduction.toStdString();
    if (!config.accountApiStaging.isEmpty())
        return config.accountApiStaging.toStdString();
    std::string url = config.accountApiProduction.toStdString();
    const size_t hostStart = url.find("://");
    const size_t labelEnd = url.find_first_of(".:/", hostStart == std::string::npos ? 0 : hostStart + 3);
    return labelEnd == std::string::npos ? url + "-staging" : url.insert(labelEnd, "-staging");
}

std::string apiKey(bool staging)
{
    const Configuration &config = Configuration::instance();
    return (staging ? config.cloudApiKeyStaging : config.cloudApiKeyProduction).toStdString();
}

httplib::Result send(const Request &request)
{
    return HttpClientFactory::instance().send(request.url, [&](httplib::Client &client, const std::string &path) {
        if (!request.token.empty())
            client.set_bearer_token_auth(request.token);
        if (request.connectTimeout >= 0)
            client.set_connection_timeout(request.connectTimeout);
        if (request.readTimeout >= 0)
            client.set_read_timeout(request.readTimeout);
        if (request.method == "POST")
            return client.Post(path, request.headers, request.body, request.contentType);
        if (request.method == "PATCH")
            return client.Patch(path, request.headers, request.body, request.contentType);
        if (request.method == "DELETE")
            return client.Delete(path, request.headers, request.body, request.contentType);
        return client.Get(path, request.headers);
    });
}

bool splitStorageUrl(const std::string &url, StorageTarget &target)
{
    static const std::regex pattern("https://([^/]+)(/.*)");
    std::smatch match;
    if (!std::regex_match(url, match, pattern))
        return false;
    const std::string host = match[1];
    const size_t colon = host.rfind(':');
    target.host = host.substr(0, colon);
    target.port = 443;
    if (colon != std::string::npos) {
        try {
            target.port = std::stoi(host.substr(colon + 1));
        } catch (const std::exception &) {
            return false;
        }
    }
    target.path = match[2];
    return true;
}

} // namespace CloudEndpoints
