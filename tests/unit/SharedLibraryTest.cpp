#include "base/SharedLibrary.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(SharedLibraryTest, AFunctionOfAnOpenedLibraryIsCalledThroughItsDeclaredType) {
  SharedLibrary library("libgmodule-2.0.so.0");
  ASSERT_TRUE(library.loaded()) << library.error();
  auto supported = ORVANE_LIBRARY_FUNCTION(library, g_module_supported);
  ASSERT_NE(supported, nullptr) << library.error();
  EXPECT_TRUE(supported());
  EXPECT_EQ(library.error(), "");
  EXPECT_TRUE(library.complete());
}

TEST(SharedLibraryTest, AMissingLibraryIsNotLoadedAndSaysWhy) {
  SharedLibrary library("libno-such-library-here.so.0");
  EXPECT_FALSE(library.loaded());
  EXPECT_NE(library.error().find("libno-such-library-here.so.0"), std::string::npos)
      << library.error();
  EXPECT_EQ(library.function<void()>("anything"), nullptr);
  EXPECT_FALSE(library.complete());
}

TEST(SharedLibraryTest, AMissingFunctionIsNullAndNamedInTheError) {
  SharedLibrary library("libgmodule-2.0.so.0");
  ASSERT_TRUE(library.loaded()) << library.error();
  EXPECT_EQ(library.function<void()>("orvane_no_such_function"), nullptr);
  EXPECT_EQ(library.error(), "libgmodule-2.0.so.0 has no orvane_no_such_function");
  // One missing function is enough: the library no longer counts as complete,
  // however many are found after it.
  EXPECT_FALSE(library.complete());
  EXPECT_NE(ORVANE_LIBRARY_FUNCTION(library, g_module_supported), nullptr);
  EXPECT_FALSE(library.complete());
  // A hostile name (a path, an empty one) is only not found.
  EXPECT_EQ(library.function<void()>("../../etc/passwd"), nullptr);
  EXPECT_EQ(library.function<void()>(""), nullptr);
}

TEST(SharedLibraryTest, AnOverrideVariableNamesTheFileOpenedWhenSetAndNotEmpty) {
  g_setenv("ORVANE_TEST_LIBRARY", "libgmodule-2.0.so.0", true);
  SharedLibrary overridden("libno-such-library-here.so.0", "ORVANE_TEST_LIBRARY");
  EXPECT_EQ(overridden.fileName(), "libgmodule-2.0.so.0");
  EXPECT_TRUE(overridden.loaded()) << overridden.error();
  g_setenv("ORVANE_TEST_LIBRARY", "", true);
  SharedLibrary empty("libgmodule-2.0.so.0", "ORVANE_TEST_LIBRARY");
  EXPECT_EQ(empty.fileName(), "libgmodule-2.0.so.0");
  g_unsetenv("ORVANE_TEST_LIBRARY");
  SharedLibrary unset("libgmodule-2.0.so.0", "ORVANE_TEST_LIBRARY");
  EXPECT_EQ(unset.fileName(), "libgmodule-2.0.so.0");
}

} // namespace
} // namespace orvane
