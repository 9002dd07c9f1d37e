// Replays fuzz inputs without libFuzzer: every file named, or found in a directory named, is
// passed to LLVMFuzzerTestOneInput once; `--generated N` then passes N short inputs made from the
// numbers 0 .. N-1 (the first byte cycles through the members, eight hashed bytes follow and the
// decoder's generator fills in the rest). Runs the seed corpora and a fixed generated sweep as tests in every build.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  long generated = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (std::string(argv[i]) == "--generated" && i + 1 < argc) {
      generated = std::strtol(argv[++i], nullptr, 10);
      continue;
    }
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
  if (files.empty() && generated <= 0) {
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
  for (long k = 0; k < generated; ++k) {
    uint64_t z = static_cast<uint64_t>(k + 1) * 0x9e3779b97f4a7c15ull;  // splitmix64
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    z ^= z >> 31;
    uint8_t data[9] = {static_cast<uint8_t>(k)};
    std::memcpy(data + 1, &z, sizeof z);
    LLVMFuzzerTestOneInput(data, sizeof data);
  }
  printf("replay: %zu inputs and %ld generated, no difference\n", files.size(), generated);
  return 0;
}
