// Feeds saved inputs to a fuzz target's entry point, so that the seeds and
// regressions of every target run in the normal build, without clang or
// libFuzzer.  Each argument is a directory (every regular file in it is an
// input) or a single input file; a missing directory is skipped.  Inputs
// run in name order, each once; the name is printed first, so that when a
// target traps the output says which input did it.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const fs::directory_entry& e : fs::directory_iterator(argv[i], ec))
        if (e.is_regular_file()) inputs.push_back(e.path().string());
    } else if (fs::is_regular_file(argv[i], ec)) {
      inputs.push_back(argv[i]);
    }
  }
  if (inputs.empty()) {
    fprintf(stderr, "no inputs found\n");
    return 1;
  }
  std::sort(inputs.begin(), inputs.end());
  for (const std::string& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
      fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
    fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  printf("%zu inputs passed\n", inputs.size());
  return 0;
}
