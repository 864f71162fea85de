// A finished call as one page a person can open anywhere: the panel's page
// with its style and script written into it and the whole record given to
// it, so that it shows the car's last state and the complete timeline
// without a running car.
#pragma once

#include <string>
#include <vector>

namespace sim {

// lines: the record's JSON entries in order. False with the reason.
bool writeTimeline(const std::string& path, const std::vector<std::string>& lines, std::string& why);

}  // namespace sim
