// The pure pieces of the Wayland selections: which MIME type names from a
// peer are kept, which types hold text and how their bytes become UTF-8,
// the key events of a copy chord, and a DataControl with no compositor.
#include "desktop/kwin/FakeInputKeys.h"
#include "desktop/wayland/DataControl.h"
#include "support/LogCapture.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(DataControlPiecesTest, KeepsOnlyUsableMimeTypeNames) {
  EXPECT_TRUE(IsUsableMimeType("text/plain;charset=utf-8", 255));
  EXPECT_TRUE(IsUsableMimeType("UTF8_STRING", 255));
  EXPECT_TRUE(IsUsableMimeType("application/x-\xc3\xa9t\xc3\xa9", 255));
  EXPECT_FALSE(IsUsableMimeType("", 255));
  EXPECT_FALSE(IsUsableMimeType("bad\ttype", 255));
  EXPECT_FALSE(IsUsableMimeType("bad\ntype", 255));
  EXPECT_FALSE(IsUsableMimeType(std::string("nul\0type", 8), 255));
  EXPECT_FALSE(IsUsableMimeType("del\x7ftype", 255));
  EXPECT_TRUE(IsUsableMimeType(std::string(255, 'x'), 255));
  EXPECT_FALSE(IsUsableMimeType(std::string(256, 'x'), 255));
}

TEST(DataControlPiecesTest, MetaTypesAreNotData) {
  for (const char* type : {"TARGETS", "MULTIPLE", "TIMESTAMP", "SAVE_TARGETS", "DELETE",
                           "INSERT_SELECTION", "INSERT_PROPERTY"})
    EXPECT_TRUE(IsMetaMimeType(type)) << type;
  for (const char* type : {"text/plain", "UTF8_STRING", "STRING", "image/png", "targets"})
    EXPECT_FALSE(IsMetaMimeType(type)) << type;
}

TEST(DataControlPiecesTest, TextTypesBestFirst) {
  EXPECT_EQ(TextMimeTypesOf({"STRING", "image/png", "text/plain", "UTF8_STRING",
                             "text/plain;charset=utf-8", "TEXT"}),
            (std::vector<std::string>{"text/plain;charset=utf-8", "UTF8_STRING", "text/plain",
                                      "STRING"}));
  EXPECT_EQ(TextMimeTypesOf({"image/png", "text/html"}), std::vector<std::string>{});
}

TEST(DataControlPiecesTest, TextBytesBecomeUtf8) {
  EXPECT_EQ(TextFromMimeBytes("STRING", "caf\xe9"), "caf\xc3\xa9");
  EXPECT_EQ(TextFromMimeBytes("text/plain;charset=utf-8", "caf\xc3\xa9"), "caf\xc3\xa9");
  // A bad sequence becomes U+FFFD, the rest stays.
  EXPECT_EQ(TextFromMimeBytes("UTF8_STRING", "a\xff"
                                             "b"),
            "a\xef\xbf\xbd"
            "b");
  EXPECT_EQ(TextFromMimeBytes("text/plain", ""), "");
}

TEST(DataControlPiecesTest, ChordReleasesHeldModifiersFirstThenPressesInOrder) {
  std::vector<KeyEvent> events =
      ChordEvents({kEvdevLeftCtrl, kEvdevLeftShift, kEvdevC}, {kEvdevLeftAlt, kEvdevRightAlt});
  EXPECT_EQ(events, (std::vector<KeyEvent>{{kEvdevLeftAlt, false},
                                           {kEvdevRightAlt, false},
                                           {kEvdevLeftCtrl, true},
                                           {kEvdevLeftShift, true},
                                           {kEvdevC, true},
                                           {kEvdevC, false},
                                           {kEvdevLeftShift, false},
                                           {kEvdevLeftCtrl, false}}));
  EXPECT_EQ(ChordEvents({}, {}), std::vector<KeyEvent>{});
}

// Points WAYLAND_DISPLAY at a socket that does not exist for one test.
class NoCompositor {
public:
  NoCompositor() {
    const char* old = getenv("WAYLAND_DISPLAY");
    if (old)
      old_ = old;
    setenv("WAYLAND_DISPLAY", "orvane-no-such-compositor", 1);
  }
  ~NoCompositor() {
    if (old_)
      setenv("WAYLAND_DISPLAY", old_->c_str(), 1);
    else
      unsetenv("WAYLAND_DISPLAY");
  }

private:
  std::optional<std::string> old_;
};

TEST(DataControlPiecesTest, WithoutACompositorEverythingAnswersEmptyAndSaysWhy) {
  LogCapture log;
  NoCompositor none;
  DataControl data_control;
  EXPECT_FALSE(data_control.connect());
  EXPECT_FALSE(data_control.connected());
  EXPECT_EQ(data_control.readText(SelectionKind::kPrimary), std::nullopt);
  EXPECT_EQ(data_control.mimeTypes(SelectionKind::kClipboard), std::nullopt);
  EXPECT_EQ(data_control.saveClipboard().types, ClipboardContents{});
  EXPECT_FALSE(data_control.setClipboard({{"text/plain", "x"}}));
  EXPECT_FALSE(data_control.ownsClipboard());
  std::vector<std::string> lines = log.messages();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "data-control: no Wayland display to connect to");

  FakeInputKeys keys;
  EXPECT_FALSE(keys.send(ChordEvents({kEvdevLeftCtrl, kEvdevC}, {})));
}

} // namespace
} // namespace orvane
