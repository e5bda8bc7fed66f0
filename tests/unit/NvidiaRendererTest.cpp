#include "web/NvidiaRenderer.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kDmabuf[] = "WEBKIT_DISABLE_DMABUF_RENDERER";
constexpr char kCompositing[] = "WEBKIT_DISABLE_COMPOSITING_MODE";
constexpr char kLogLine[] = "web: NVIDIA driver — DMA-BUF renderer off";

std::optional<std::string> Variable(const char* name) {
  const char* value = g_getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

void Restore(const char* name, const std::optional<std::string>& value) {
  if (value)
    g_setenv(name, value->c_str(), TRUE);
  else
    g_unsetenv(name);
}

// Each test starts with neither variable set and leaves the environment as
// it found it.
class NvidiaRendererTest : public ::testing::Test {
protected:
  void SetUp() override {
    g_unsetenv(kDmabuf);
    g_unsetenv(kCompositing);
    driver_file_ = dir_.write("proc/driver/nvidia/version", "NVRM version: 550.54\n");
  }
  void TearDown() override {
    Restore(kDmabuf, saved_dmabuf_);
    Restore(kCompositing, saved_compositing_);
  }

  std::optional<std::string> saved_dmabuf_ = Variable(kDmabuf);
  std::optional<std::string> saved_compositing_ = Variable(kCompositing);
  TempDir dir_;
  std::string driver_file_;
  LogCapture log_;
};

TEST_F(NvidiaRendererTest, DriverLoadedTurnsTheRendererOff) {
  EXPECT_TRUE(TurnOffDmabufRendererForNvidia(driver_file_));
  EXPECT_EQ(Variable(kDmabuf), "1");
  EXPECT_EQ(Variable(kCompositing), std::nullopt);
  EXPECT_THAT(log_.messages(), ElementsAre(kLogLine));
}

TEST_F(NvidiaRendererTest, NoDriverChangesNothing) {
  EXPECT_FALSE(TurnOffDmabufRendererForNvidia(dir_.file("proc/driver/nvidia/missing")));
  EXPECT_EQ(Variable(kDmabuf), std::nullopt);
  EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(NvidiaRendererTest, UserSettingWinsWhateverItsValue) {
  for (const char* value : {"0", "", "1"}) {
    g_setenv(kDmabuf, value, TRUE);
    EXPECT_FALSE(TurnOffDmabufRendererForNvidia(driver_file_)) << value;
    EXPECT_EQ(Variable(kDmabuf), value);
  }
  g_unsetenv(kDmabuf);
  for (const char* value : {"0", ""}) {
    g_setenv(kCompositing, value, TRUE);
    EXPECT_FALSE(TurnOffDmabufRendererForNvidia(driver_file_)) << value;
    EXPECT_EQ(Variable(kDmabuf), std::nullopt);
    EXPECT_EQ(Variable(kCompositing), value);
  }
  EXPECT_THAT(log_.messages(), IsEmpty());
}

TEST_F(NvidiaRendererTest, HostileProbePathsChangeNothing) {
  for (const std::string& path :
       {std::string(), std::string("relative/version"), dir_.file("proc/driver/nvidia"),
        dir_.file(std::string(5000, 'x')), std::string("/proc/driver/nvidia/version\n")}) {
    TurnOffDmabufRendererForNvidia(path);
  }
  // A folder is not the driver's file.
  EXPECT_EQ(Variable(kDmabuf), std::nullopt);
  EXPECT_THAT(log_.messages(), IsEmpty());
}

} // namespace
} // namespace orvane
