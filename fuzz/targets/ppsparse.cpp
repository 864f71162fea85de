// The PPS line parser on any text: every object file and every delta read
// of another process's object goes through it.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/pps.h"
#include "support/fuzzSupport.h"

namespace {

bool inside(const char* p, const std::vector<char>& text) {
  return p == nullptr || (p >= text.data() && p < text.data() + text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> text(data, data + size);
  text.push_back('\0');
  char* cursor = text.data();
  pps_attrib_t info{};
  // Each line is consumed by one call, so a text ends after at most as many
  // calls as it has bytes, plus the one that reports the end.
  for (size_t calls = 0;; ++calls) {
    fuzzSupport::expect(calls <= size + 1, "the parser does not come to the end of the text");
    char* before = cursor;
    const pps_status_t kind = ppsparse(&cursor, nullptr, nullptr, &info, 0);
    fuzzSupport::expect(inside(cursor, text), "the parser left the text");
    if (kind == PPS_END) break;
    fuzzSupport::expect(cursor > before, "a line parsed without moving on");
    fuzzSupport::expect(inside(info.attr_name, text) && inside(info.value, text) && inside(info.encoding, text) &&
                            inside(info.obj_name, text),
                        "a parsed field outside the text");
    if (kind == PPS_ATTRIBUTE) {
      fuzzSupport::expect(info.attr_name != nullptr && info.value != nullptr && info.encoding != nullptr,
                          "an attribute line without name, encoding or value");
    }
  }
  return 0;
}
