// The panel's page (HTML, CSS, JavaScript under sim/panel/), built into the
// program so that it runs on a machine without anything else installed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sim {

struct PanelFile {
  const char* name;  // "index.html", "panel.css", ...
  const char* data;
  size_t size;
  std::string text() const { return {data, size}; }
};
const std::vector<PanelFile>& panelFiles();  // generated at build time
const PanelFile* panelFile(const std::string& name);

}  // namespace sim
