// Support tooling reads the system log by "source:line": each privileged
// section must be told apart by its line alone. This reads the module's
// sources, finds every place a section is opened, and fails when two
// sections would log the same source and line, or when one function's
// section serves callers that ask it for different operations.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct SourceFile {
    std::string name;
    std::string logSource;
    std::vector<std::string> lines;
};

struct Opener {
    std::string file;
    int line = 0;
    std::string function;  // the function whose own __LINE__ the section logs
};

std::vector<SourceFile> ModuleSources() {
    static const std::regex logSource(R"re(kLogSource(\[\])?\s*=\s*(kUtilsLogSource|"([^"]+)"))re");
    std::vector<SourceFile> files;
    for (const auto& entry : fs::directory_iterator(FARLINK_MODULE_SOURCE_DIR)) {
        if (entry.path().extension() != ".cpp") continue;
        SourceFile file{entry.path().filename().string(), "", {}};
        std::ifstream in(entry.path());
        for (std::string text; std::getline(in, text);) {
            std::smatch match;
            if (file.logSource.empty() && std::regex_search(text, match, logSource)) {
                file.logSource = match[3].matched ? match[3].str() : "utils";
            }
            file.lines.push_back(text);
        }
        files.push_back(std::move(file));
    }
    return files;
}

// The function defined around line `index`: clang-format puts definitions
// at the start of a line.
const std::regex& DefinitionPattern() {
    static const std::regex definition(R"(^[A-Za-z_][\w:<>,\s\*&]*?\b(\w+)\()");
    return definition;
}

std::string EnclosingFunction(const SourceFile& file, std::size_t index) {
    for (std::size_t i = index + 1; i-- > 0;) {
        std::smatch match;
        if (std::regex_search(file.lines[i], match, DefinitionPattern())) return match[1];
    }
    return "";
}

// Helpers that open a section at the line their caller passes.
std::set<std::string> LineForwarders(const std::vector<SourceFile>& files) {
    static const std::regex forwarded(R"((RunPrivileged|CriticalSection \w+)\(source, line)");
    std::set<std::string> names;
    for (const SourceFile& file : files) {
        for (std::size_t i = 0; i < file.lines.size(); ++i) {
            if (std::regex_search(file.lines[i], forwarded)) {
                names.insert(EnclosingFunction(file, i));
            }
        }
    }
    return names;
}

int CountOpeners(const std::string& text, const std::set<std::string>& forwarders) {
    static const std::regex own(
        R"(AS_ROOT\(|CriticalSection \w+\(kLogSource, __LINE__\)|RunPrivileged\(kLogSource, __LINE__)");
    int count = static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), own), std::sregex_iterator()));
    for (const std::string& name : forwarders) {
        const std::regex call("\\b" + name + R"(\(kLogSource, __LINE__)");
        count += static_cast<int>(std::distance(
            std::sregex_iterator(text.begin(), text.end(), call), std::sregex_iterator()));
    }
    return count;
}

// The argument lists with which `function` is called anywhere in the module.
std::set<std::string> CallArguments(const std::vector<SourceFile>& files,
                                    const std::string& function) {
    const std::regex call("\\b" + function + R"(\((.*)\)\s*;)");
    std::set<std::string> arguments;
    for (const SourceFile& file : files) {
        for (std::size_t i = 0; i < file.lines.size(); ++i) {
            std::smatch match;
            if (!std::regex_search(file.lines[i], match, call)) continue;
            std::smatch definition;
            const bool itsDefinition =
                std::regex_search(file.lines[i], definition, DefinitionPattern()) &&
                definition[1] == function;
            if (!itsDefinition) arguments.insert(match[1]);
        }
    }
    return arguments;
}

// A literal or a lambda in the arguments chooses what the section does.
bool ChoosesTheOperation(const std::string& arguments) {
    static const std::regex choice(R"("|'|\[|\b(true|false)\b|(^|[\s,(])\d)");
    return std::regex_search(arguments, choice);
}

TEST(PrivilegedSections, EachLogsASourceAndLineOfItsOwn) {
    const std::vector<SourceFile> files = ModuleSources();
    ASSERT_GT(files.size(), 10u);
    const std::set<std::string> forwarders = LineForwarders(files);

    std::map<std::string, Opener> seen;  // "source:line"
    std::vector<Opener> openers;
    for (const SourceFile& file : files) {
        for (std::size_t i = 0; i < file.lines.size(); ++i) {
            const int count = CountOpeners(file.lines[i], forwarders);
            if (count == 0) continue;
            const Opener opener{file.name, static_cast<int>(i + 1), EnclosingFunction(file, i)};
            EXPECT_EQ(count, 1) << file.name << ":" << i + 1 << " opens two sections";
            ASSERT_FALSE(file.logSource.empty()) << file.name << " names no log source";
            const std::string key = file.logSource + ":" + std::to_string(i + 1);
            const auto [first, fresh] = seen.emplace(key, opener);
            EXPECT_TRUE(fresh) << key << " is logged by " << first->second.file << " and "
                               << file.name;
            openers.push_back(opener);
        }
    }
    EXPECT_GE(openers.size(), 15u) << "the module's sections were not found";

    for (const Opener& opener : openers) {
        const std::set<std::string> calls = CallArguments(files, opener.function);
        if (calls.size() < 2) continue;
        for (const std::string& arguments : calls) {
            EXPECT_FALSE(ChoosesTheOperation(arguments))
                << opener.file << ":" << opener.line << ": " << opener.function
                << " opens one section for callers that choose different operations (" << arguments
                << "); open a section in each caller";
        }
    }
}

}  // namespace
