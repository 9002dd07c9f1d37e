// Replays fuzz inputs without libFuzzer: every file named, or found in a directory named, is
// passed to LLVMFuzzerTestOneInput once. Runs the seed corpora as tests in every build.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const auto& e : fs::directory_iterator(argv[i], ec))
        if (e.is_regular_file()) files.push_back(e.path());
    } else if (fs::is_regular_file(argv[i], ec)) {
      files.push_back(argv[i]);
    } else {
      fprintf(stderr, "replay: no such file or directory: %s\n", argv[i]);
      return 1;
    }
  }
  if (files.empty()) {
    fprintf(stderr, "replay: no inputs (usage: %s CORPUS_DIR_OR_FILE...)\n", argv[0]);
    return 1;
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& f : files) {
    std::ifstream s(f, std::ios::binary);
    const std::vector<uint8_t> data((std::istreambuf_iterator<char>(s)),
                                    std::istreambuf_iterator<char>());
    fprintf(stderr, "replay: %s\n", f.c_str());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  printf("replay: %zu inputs, no difference\n", files.size());
  return 0;
}
