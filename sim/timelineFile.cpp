#include "timelineFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "panelFiles.h"

namespace sim {

namespace {

// The text with "</" written "<\/", so that nothing in it ends the script
// or style element it is put in (JSON and JavaScript read both alike).
std::string inScript(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    out += text[i];
    if (text[i] == '<' && i + 1 < text.size() && text[i + 1] == '/') out += '\\';
  }
  return out;
}

void replace(std::string& page, const std::string& what, const std::string& with) {
  size_t at = page.find(what);
  if (at != std::string::npos) page.replace(at, what.size(), with);
}

}  // namespace

bool writeTimeline(const std::string& path, const std::vector<std::string>& lines, std::string& why) {
  std::string record = "[\n";
  for (const std::string& line : lines) record += inScript(line) + ",\n";
  record += "]";
  std::string page = panelFile("index.html")->text();
  replace(page, "<link rel=\"stylesheet\" href=\"panel.css\">", "<style>\n" + panelFile("panel.css")->text() + "</style>");
  replace(page, "<script src=\"panel.js\"></script>",
          "<script>\nconst RECORD = " + record + ";\n</script>\n<script>\n" + inScript(panelFile("panel.js")->text()) +
              "</script>");
  std::ofstream out(path, std::ios::trunc);
  out << page;
  out.close();
  if (!out) {
    why = "cannot write the timeline " + path + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace sim
