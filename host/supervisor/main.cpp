// farlink-host: loads a web API module as the platform's server does and
// serves it over HTTP, with the module in worker processes apart from the
// process that faces the network. See docs/host.md.
#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "options.h"
#include "supervisor.h"

namespace {

// The kernel keeps the command line for anyone to read in /proc; a password
// given there is blanked as soon as it has been copied.
void BlankPasswordArgument(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        char* value = nullptr;
        if (std::strcmp(argv[i], "--password") == 0 && i + 1 < argc) value = argv[i + 1];
        if (std::strncmp(argv[i], "--password=", 11) == 0) value = argv[i] + 11;
        if (value != nullptr) OPENSSL_cleanse(value, std::strlen(value));
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace farlink::host;
    std::vector<std::string> args(argv + 1, argv + argc);
    BlankPasswordArgument(argc, argv);
    if (!args.empty() && args.front() == "--help") {
        std::fputs(UsageText().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    try {
        const Options options = ParseOptions(args);
        return Supervise(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
