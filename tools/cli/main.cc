// kvlcv: the command-line face of the library.
#include <kvlcv.h>

#include <cstdio>
#include <cstring>

namespace {

void printVersion() {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  std::printf("%s %s (built %s, target %s)\n", v->Name, v->Version, v->BuildDate, v->targetCpu);
}

int demo() {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  std::printf("kvlCV demo\n");
  std::printf("  library    %s\n", v->Name);
  std::printf("  version    %s (%d.%d.%d build %d), built %s, target \"%s\"\n", v->Version,
              v->major, v->minor, v->majorBuild, v->build, v->BuildDate, v->targetCpu);
  int threads = 0, cache = 0;
  kvlGetNumThreads(&threads);
  kvlGetMaxCacheSizeB(&cache);
  std::printf("  threads    %d permitted\n", threads);
  std::printf("  cores      %d\n", kvlGetNumCoresOnDie());
  std::printf("  cache      %d KiB (largest)\n", cache / 1024);
  return 0;
}

void usage(FILE* out) {
  std::fprintf(out,
               "usage: kvlcv <operation> [options] <input> <output>\n"
               "       kvlcv demo        run the demonstration\n"
               "       kvlcv --version   print the library's version record\n"
               "       kvlcv --help      this text\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
    usage(stdout);
    return 0;
  }
  if (!std::strcmp(argv[1], "--version")) {
    printVersion();
    return 0;
  }
  if (!std::strcmp(argv[1], "demo")) return demo();
  std::fprintf(stderr, "kvlcv: unknown operation '%s' (see kvlcv --help)\n", argv[1]);
  return 2;
}
