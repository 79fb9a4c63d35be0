// A compiled POSIX extended regular expression that is released with its
// owner, on every path out of the function that compiled it.
#pragma once

#include <regex.h>

#include <cstddef>
#include <string>

class PosixPattern {
public:
    explicit PosixPattern(const char* pattern)
        : compiled_(regcomp(&regex_, pattern, REG_EXTENDED | REG_NEWLINE) == 0) {}
    ~PosixPattern() {
        if (compiled_) regfree(&regex_);
    }
    PosixPattern(const PosixPattern&) = delete;
    PosixPattern& operator=(const PosixPattern&) = delete;

    // False when the pattern did not compile.
    bool Matches(const char* text) const {
        regmatch_t matches[kMatchSlots];
        return compiled_ && regexec(&regex_, text, kMatchSlots, matches, 0) == 0;
    }
    // regexec stops at a NUL, so a text with one inside would be judged by
    // its head alone: such a text never matches.
    bool MatchesText(const std::string& text) const {
        return text.find('\0') == std::string::npos && Matches(text.c_str());
    }

private:
    static constexpr std::size_t kMatchSlots = 64;
    regex_t regex_;
    bool compiled_;
};
