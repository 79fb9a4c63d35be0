// The harness as a plain program: runs every input named on the command line
// (files, or directories of files), and fails when the harness left
// descriptors or child processes behind. Built instead of libFuzzer's main
// wherever the fuzz build is not, so that CTest replays the corpus with gcc.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "fuzz_check.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

// Open descriptors, and every thread's children by pid.
using Resources = std::pair<std::size_t, std::multiset<std::string>>;

Resources Measure() {
    const fs::directory_iterator descriptors("/proc/self/fd");
    Resources resources{
        static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors))), {}};
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        for (std::string pid; list >> pid;) resources.second.insert(pid);
    }
    return resources;
}

std::string Describe(const Resources& resources) {
    std::string text = std::to_string(resources.first) + " descriptors, " +
                       std::to_string(resources.second.size()) + " children";
    for (const std::string& pid : resources.second) text += " " + pid;
    return text;
}

std::vector<fs::path> Inputs(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-') continue;  // libFuzzer's options, for symmetry
        if (!fs::is_directory(argv[i])) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(argv[i]))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        inputs.insert(inputs.end(), files.begin(), files.end());
    }
    return inputs;
}

bool RunAll(const std::vector<fs::path>& inputs) {
    for (const fs::path& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return false;
        }
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    const std::vector<fs::path> inputs = Inputs(argc, argv);
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s INPUT-OR-DIRECTORY...\n", argv[0]);
        return 2;
    }
    // Twice, measured between the passes: what a harness opens once for
    // good in the first pass (the system log's socket, a resolver) is not a
    // leak, what every input leaves behind shows in the second.
    if (!RunAll(inputs)) return 1;
    const Resources before = Measure();
    if (!RunAll(inputs)) return 1;
    const Resources after = Measure();
    if (after != before) {
        std::fprintf(stderr, "resources leaked: before %s; after %s\n", Describe(before).c_str(),
                     Describe(after).c_str());
        return 1;
    }
    std::printf("replayed %zu inputs twice; %s before and after\n", inputs.size(),
                Describe(after).c_str());
    return 0;
}
