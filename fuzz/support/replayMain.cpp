// The main of a fuzz target built without libFuzzer: runs the target once on
// every file named on the command line, or on every file of a folder named
// there (in name order), so that CTest replays the corpus with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replayFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "replay: cannot read %s\n", path.c_str());
    return false;
  }
  std::vector<uint8_t> input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // A heap block of exactly the input's size, so that a read one byte past
  // the input is caught by the address checker as it is under libFuzzer.
  std::unique_ptr<uint8_t[]> exact(new uint8_t[input.size()]);
  std::copy(input.begin(), input.end(), exact.get());
  LLVMFuzzerTestOneInput(exact.get(), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg(argv[i]);
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
    } else {
      files.push_back(arg);
    }
    for (const auto& file : files) {
      ok = replayFile(file) && ok;
      ++replayed;
    }
  }
  printf("replayed %zu inputs\n", replayed);
  if (replayed == 0) {
    fprintf(stderr, "replay: no input given\n");
    return 1;
  }
  return ok ? 0 : 1;
}
