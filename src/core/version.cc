// The library's constant version record.
#include "impl_decls.h"

namespace {
constexpr KvlLibraryVersion kVersion = {
    8, 2, 1, 44077, {'e', '9', 0, 0}, "kvlCV AVX (e9 threaded)", "8.2.1 (r44077)", "Oct  9 2014"};
}  // namespace

extern "C" const KvlLibraryVersion* impl_kvlcvGetLibVersion(void) { return &kVersion; }
