#include "host_info.h"

#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>

#include <fstream>
#include <sstream>

namespace orvorelayd {
namespace {

using farlink::UniqueFd;

bool LineHasKey(const std::string& line, const std::string& key) {
    const auto start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line.compare(start, key.size(), key) != 0) return false;
    const auto next = line.find_first_not_of(" \t", start + key.size());
    return next != std::string::npos && line[next] == '=';
}

// The file's text with the key's first line replaced by `entry` (or `entry`
// appended) and any further lines of the key dropped, so readers agree.
std::string WithEntry(const std::string& path, const std::string& key, const std::string& entry) {
    std::ifstream in(path);
    std::ostringstream text;
    bool written = false;
    for (std::string line; std::getline(in, line);) {
        if (!LineHasKey(line, key)) {
            text << line << '\n';
        } else if (!written) {
            text << entry << '\n';
            written = true;
        }
    }
    if (!written) text << entry << '\n';
    return text.str();
}

}  // namespace

bool SetHostInfoKey(const std::string& path, const std::string& key, const std::string& value) {
    if (key.empty()) return false;
    const std::string text = WithEntry(path, key, key + "=\"" + value + "\"");
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd.Valid() && farlink::WriteAll(fd.Get(), text.data(), text.size()) &&
           fsync(fd.Get()) == 0 && fd.Close();
}

}  // namespace orvorelayd
