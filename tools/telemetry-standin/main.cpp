// The usage-event collector, the analytics services and the update service on
// loopback, for the demo and for trying the telemetry types by hand. Writes
// DIR/config.json (the keys of --base, if given, and its own), prints one JSON
// line with that path ("config") and its listeners ("https", "http",
// "control") once it listens, then one line per request, and runs until its
// standard input closes.
//
//   telemetry-standin --dir DIR [--base CONFIG.json] [--installer-mib N]
#include "TelemetryService.h"

#include <csignal>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char **argv)
{
    std::string dir, baseConfig;
    int installerMiB = 32;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i], value = argv[i + 1];
        if (flag == "--dir")
            dir = value;
        else if (flag == "--base")
            baseConfig = value;
        else if (flag == "--installer-mib")
            installerMiB = std::max(1, std::stoi(value));
        else {
            std::cerr << "telemetry-standin: unknown option " << flag << '\n';
            return 2;
        }
    }
    if (dir.empty()) {
        std::cerr << "telemetry-standin: --dir is required\n";
        return 2;
    }
    // A client that drops a connection mid-answer must not end the service.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        nlohmann::json config = nlohmann::json::object();
        if (!baseConfig.empty())
            config = nlohmann::json::parse(std::ifstream(baseConfig));
        TelemetryService service(dir, installerMiB);
        config.update(service.start());
        const std::string path = dir + "/config.json";
        std::ofstream(path) << config.dump(1);
        nlohmann::json ready = service.addresses();
        ready["config"] = path;
        std::cout << ready.dump() << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
        }
        return 0;
    } catch (const std::exception &error) {
        std::cerr << "telemetry-standin: " << error.what() << '\n';
        return 1;
    }
}
