// What every harness shares: the libFuzzer entry points and the check that
// turns a broken property into a crash the fuzzer keeps as a reproducer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

// Not assert(): it must hold in release builds too.
#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

namespace farlink_fuzz {

// The input as `count` fields: the first count-1 are lines, the last is
// everything after them (missing fields are empty). Seeds stay readable.
inline std::vector<std::string_view> SplitFields(const std::uint8_t* data, std::size_t size,
                                                 std::size_t count) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string_view> fields;
    while (fields.size() + 1 < count) {
        const std::size_t end = rest.find('\n');
        fields.push_back(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    fields.push_back(rest);
    return fields;
}

}  // namespace farlink_fuzz
