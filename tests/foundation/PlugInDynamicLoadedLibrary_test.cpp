#include "PlugInDynamicLoadedLibrary.h"

#include <gtest/gtest.h>

#include "temphome.h"

TEST(DynamicLibrary, NamesAreDecorated) {
  const struct {
    const char* name;
    const char* want;
  } kCases[] = {{"R", "libR.dylib"},
                {"/opt/r/lib/R", "/opt/r/lib/libR.dylib"},
                {"/opt/r/lib/libR.dylib", "/opt/r/lib/libR.dylib"},
                {"libR", "liblibR.dylib"},
                {"/opt/r/", "/opt/r/lib.dylib"},
                {".dylib", "lib.dylib.dylib"},
                {"/opt/x.dylib", "/opt/x.dylib"},
                {"R.DYLIB", "libR.DYLIB.dylib"},
                {"", "lib.dylib"}};
  for (const auto& c : kCases) EXPECT_EQ(c.want, PlugInDecorateDynamicPathName(c.name)) << c.name;
}

TEST(DynamicLibrary, OpensOnDemandAndStaysOpen) {
  void* address = nullptr;
  {
    PlugInDynamicLoadedLibrary library(VEXADX_TEST_PLUGINS "/libctest.dylib", 0);
    EXPECT_EQ("", library.GetErrorString());
    address = library.GetSymbolAddress("pre_action");
    ASSERT_NE(nullptr, address) << library.GetErrorString();
    EXPECT_EQ(0, library.LoadLibraryNow());

    EXPECT_EQ(nullptr, library.GetSymbolAddress("no_such_name"));
    EXPECT_NE(std::string::npos, library.GetErrorString().find("no_such_name"));
    EXPECT_EQ(0, library.LoadLibraryNow());
    EXPECT_EQ("", library.GetErrorString());
  }
  EXPECT_EQ(0, reinterpret_cast<int (*)()>(address)());
}

TEST(DynamicLibrary, SaysWhyItCannotBeOpenedAndTriesAgain) {
  const TempDir dir;
  const std::string path = dir.Path("libx.dylib");
  PlugInDynamicLoadedLibrary library(path, 0);
  EXPECT_EQ(-1, library.LoadLibraryNow());
  EXPECT_EQ(0U, library.GetErrorString().find("dlopen errno(2): No such file or directory\n"));
  EXPECT_NE(std::string::npos, library.GetErrorString().find(path));
  EXPECT_EQ(nullptr, library.GetSymbolAddress("pre_action"));

  dir.Write("libx.dylib", "a text file");
  EXPECT_EQ(-1, library.LoadLibraryNow());
  EXPECT_NE("", library.GetErrorString());

  std::filesystem::remove(path);
  std::filesystem::create_symlink(VEXADX_TEST_PLUGINS "/libctest.dylib", path);
  EXPECT_EQ(0, library.LoadLibraryNow());
  EXPECT_EQ("", library.GetErrorString());
}

TEST(DynamicLibrary, KeepsAtMost1023CharactersOfTheError) {
  PlugInDynamicLoadedLibrary library("/" + std::string(3000, 'x'), 0);
  EXPECT_EQ(-1, library.LoadLibraryNow());
  EXPECT_EQ(1023U, library.GetErrorString().size());
}
