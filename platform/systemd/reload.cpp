// Reload of a unit: the unit's main process, named by its pid file, gets
// SIGHUP. Every request leaves one line in the reload log.
#include <orvo/paths.h>
#include <orvo/systemd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>
#include <system_error>

#include "platform_files.h"

namespace {

std::string ErrorText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

// Unit names become file names under the run directory, so nothing that
// could leave it (or start a hidden file) is accepted.
bool IsValidUnitName(const std::string& unit) {
    if (unit.empty() || unit.size() > 255 || unit.front() == '.') {
        return false;
    }
    for (unsigned char c : unit) {
        if (!std::isalnum(c) && c != '@' && c != '.' && c != '_' && c != ':' && c != '-') {
            return false;
        }
    }
    return true;
}

// Keeps the log one line per request whatever the caller passed.
std::string Printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (!std::isprint(static_cast<unsigned char>(c))) {
            c = '?';
        }
    }
    return out.empty() ? "\"\"" : out;
}

// Only a plain positive number is a pid: 0 and negative values would make
// kill() signal whole process groups.
bool ParsePid(const std::string& text, pid_t& pid) {
    std::string::size_type first = text.find_first_not_of(" \t\r\n");
    std::string::size_type last = text.find_last_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return false;
    }
    std::string digits = text.substr(first, last - first + 1);
    if (digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    long value = std::strtol(digits.c_str(), nullptr, 10);
    if (value <= 0 || value > INT_MAX) {
        return false;
    }
    pid = static_cast<pid_t>(value);
    return true;
}

// A zombie still answers kill(pid, 0) but no longer runs.
bool IsRunning(pid_t pid) {
    if (::kill(pid, 0) != 0 && errno != EPERM) {
        return false;
    }
    std::string stat;
    if (orvo::platform::ReadFile("/proc/" + std::to_string(pid) + "/stat", stat) != 0) {
        return true;
    }
    std::string::size_type name_end = stat.rfind(')');
    if (name_end == std::string::npos || name_end + 2 >= stat.size()) {
        return true;
    }
    char state = stat[name_end + 2];
    return state != 'Z' && state != 'X';
}

// Empty on success, otherwise why the unit could not be reloaded.
std::string SignalUnit(const std::string& unit) {
    if (!IsValidUnitName(unit)) {
        return "invalid unit name";
    }
    std::string text;
    int error =
        orvo::platform::ReadFile(std::string(ORVO::Paths::kRunDir) + "/" + unit + ".pid", text);
    if (error == ENOENT) {
        return "not running (no pid file)";
    }
    if (error != 0) {
        return "cannot read pid file: " + ErrorText(error);
    }
    pid_t pid;
    if (!ParsePid(text, pid)) {
        return "bad pid file";
    }
    if (!IsRunning(pid)) {
        return "not running";
    }
    if (::kill(pid, SIGHUP) != 0) {
        return "cannot signal: " + ErrorText(errno);
    }
    return {};
}

}  // namespace

bool ORVOSystemdReload(const std::string& unit) {
    std::string failure = SignalUnit(unit);
    std::string record = Printable(unit) + (failure.empty() ? " ok" : " failed: " + failure);
    // The reload itself has happened (or not) by now; a log that cannot be
    // written does not change the answer.
    orvo::platform::AppendLine(ORVO::Paths::kSystemdReloadLog, record);
    return failure.empty();
}
