// Helpers of the relay tests: scratch directories, file contents, running
// the daemon program and waiting for the state it publishes.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

namespace relay_test {

// A scratch directory removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Names of the directory's entries, sorted.
    std::vector<std::string> Entries() const;

private:
    std::string path_;
};

std::string ReadText(const std::string& path);
void WriteText(const std::string& path, const std::string& text);
// The parsed file or text; a null value when missing or not JSON.
Json::Value ReadJson(const std::string& path);
Json::Value ParseJson(const std::string& text);

struct ProgramResult {
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string output;
};

// Runs a program (arguments without blanks or shell characters) and
// captures its standard output.
ProgramResult RunProgram(const std::vector<std::string>& args);

// Empties the relay's configuration and runtime folders of the private root.
void ResetRelayFolders();

// Polls `condition` until it holds or `limitSeconds` pass; true if it held.
bool Eventually(const std::function<bool()>& condition, int limitSeconds);

// Reaps finished children (the daemons, orphaned to this subreaper); true
// when every one of them had exited with status 0 and none is left.
bool ChildrenEndedCleanly();

}  // namespace relay_test
