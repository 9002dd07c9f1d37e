/* A C99 program against the installed header and library. */
#include <kvlcv.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  KvliSize roi = {4, 2};
  int threads = 0;
  if (v == NULL || v->major != 8 || strcmp(v->Version, "8.2.1 (r44077)") != 0) return 1;
  if (kvlGetNumThreads(&threads) != kvlStatusOk || threads < 1) return 2;
  (void)roi;
  printf("%s %s\n", v->Name, v->Version);
  return 0;
}
