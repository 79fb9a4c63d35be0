// Reading one sample out of the Prometheus text the host serves.
#pragma once

#include <sstream>
#include <string>

namespace farlink::host::test {

// The value of the series written exactly as `series` (name and labels), or
// -1 when the text has no such line.
inline double MetricSample(const std::string& text, const std::string& series) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(series + " ", 0) == 0) return std::stod(line.substr(series.size() + 1));
    }
    return -1;
}

}  // namespace farlink::host::test
