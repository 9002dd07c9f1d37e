// The version record and the exported entry layer as a program sees it through the loader.
#include <dlfcn.h>

#include <cstring>
#include <iterator>
#include <string>

#include "support/support.h"

namespace {

TEST(Version, TheConstantRecord) {
  const KvlLibraryVersion* v = kvlcvGetLibVersion();
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v, kvlcvGetLibVersion());
  EXPECT_EQ(v->major, 8);
  EXPECT_EQ(v->minor, 2);
  EXPECT_EQ(v->majorBuild, 1);
  EXPECT_EQ(v->build, 44077);
  EXPECT_EQ(std::memcmp(v->targetCpu, "e9\0\0", 4), 0);
  EXPECT_STREQ(v->Name, "kvlCV AVX (e9 threaded)");
  EXPECT_STREQ(v->Version, "8.2.1 (r44077)");
  EXPECT_STREQ(v->BuildDate, "Oct  9 2014");
}

// Every name of the header, from the list the entry layer is generated from.
constexpr const char* kAbiNames[] = {
#define KVL_ABI_NAME(n) #n,
#include "abi_names.inc"
#undef KVL_ABI_NAME
};

// Every name of the header is an entry point of the shared library with a cell beside it that
// holds the implementation's address (inside the same library, not the entry itself, and not an
// exported symbol), and calling the entry lands there.
TEST(EntryLayer, EveryNameHasItsCell) {
  void* lib = dlopen(KVL_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  ASSERT_GT(std::size(kAbiNames), 0u);
  for (const std::string name : kAbiNames) {
    SCOPED_TRACE(name);
    void* entry = dlsym(lib, name.c_str());
    void** cell = static_cast<void**>(dlsym(lib, (name + "_arraddr").c_str()));
    EXPECT_NE(entry, nullptr);
    ASSERT_NE(cell, nullptr);
    EXPECT_NE(*cell, nullptr);
    EXPECT_NE(*cell, entry);
    Dl_info entryInfo{}, implInfo{};
    if (entry && *cell && dladdr(entry, &entryInfo) && dladdr(*cell, &implInfo)) {
      EXPECT_EQ(implInfo.dli_fbase, entryInfo.dli_fbase) << "the cell points outside the library";
    }
    EXPECT_EQ(dlsym(lib, ("impl_" + name).c_str()), nullptr) << "implementation is visible";
  }
  using VersionFn = const KvlLibraryVersion* (*)();
  auto entry = reinterpret_cast<VersionFn>(dlsym(lib, "kvlcvGetLibVersion"));
  auto cell = static_cast<VersionFn*>(dlsym(lib, "kvlcvGetLibVersion_arraddr"));
  EXPECT_EQ(entry(), (*cell)());
  EXPECT_EQ(entry()->build, 44077);
  dlclose(lib);
}

}  // namespace
