// farlink-host: loads a web API module as the platform's server does and
// serves it over HTTP, with the module in worker processes apart from the
// process that faces the network. See docs/host.md.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "options.h"
#include "supervisor.h"

int main(int argc, char** argv) {
    using namespace farlink::host;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args.front() == "--help") {
        std::fputs(UsageText().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    try {
        return Supervise(ParseOptions(args));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
