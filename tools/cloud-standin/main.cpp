// The cloud rendering service on loopback, for tests, benchmarks and the demo.
// Prints one JSON line with its endpoints, keys, token and CA once it listens,
// and runs until its standard input closes.
//
//   cloud-standin --dir DIR [--chunk-size BYTES] [--render FILTER | --result FILE]
//                 [--polls N] [--files DIR [--model-password TEXT]]
//                 [--config-out FILE [--config-base FILE]] [--proxy PORT]
//
// --files DIR also starts the model host, serving the files of DIR; the
// configuration then names it, with the password of its model files.
// --proxy PORT also starts a CONNECT proxy to loopback ports (0: any free port).
// --config-out writes the client's configuration file (endpoints, keys and
// caBundle, over the keys of --config-base) for KUTILS_CONFIG_FILE.
#include "CloudService.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char **argv)
{
    ServiceOptions options;
    std::string configOut, configBase, modelPassword;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i], value = argv[i + 1];
        if (flag == "--dir")
            options.workDir = value;
        else if (flag == "--chunk-size")
            options.chunkSize = std::max(1ull, std::stoull(value));
        else if (flag == "--render")
            options.renderFilter = value;
        else if (flag == "--result")
            options.resultFile = value;
        else if (flag == "--config-out")
            configOut = value;
        else if (flag == "--config-base")
            configBase = value;
        else if (flag == "--files")
            options.filesDir = value;
        else if (flag == "--model-password")
            modelPassword = value;
        else if (flag == "--proxy")
            options.proxyPort = std::max(0, std::stoi(value));
        else if (flag == "--polls")
            options.pollsBeforeComplete = std::stoi(value);
        else {
            std::cerr << "cloud-standin: unknown option " << flag << '\n';
            return 2;
        }
    }
    if (options.workDir.empty()) {
        std::cerr << "cloud-standin: --dir is required\n";
        return 2;
    }
    options.caDir = options.workDir + "/ca";
    // A client that drops a connection mid-answer must not end the service.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        CloudService service(options);
        const nlohmann::json ready = service.start();
        if (!configOut.empty()) {
            nlohmann::json config = nlohmann::json::object();
            if (!configBase.empty())
                config = nlohmann::json::parse(std::ifstream(configBase));
            config["videoApiProduction"] = ready["video"];
            config["videoApiStaging"] = ready["videoStaging"];
            config["accountApiProduction"] = ready["account"];
            config["accountApiStaging"] = ready["accountStaging"];
            config["cloudApiKeyProduction"] = ready["apiKeyProduction"];
            config["cloudApiKeyStaging"] = ready["apiKeyStaging"];
            config["caBundle"] = ready["caBundle"];
            if (ready.contains("files"))
                config["modelHost"] = ready["files"];
            if (!modelPassword.empty())
                config["modelPassword"] = modelPassword;
            std::ofstream(configOut) << config.dump(2) << '\n';
        }
        std::cout << ready.dump() << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
        }
        return 0;
    } catch (const std::exception &error) {
        std::cerr << "cloud-standin: " << error.what() << '\n';
        return 1;
    }
}
