// The checks on what Orvane's GNOME Shell extension answers: every field of
// a window, the monitors, the clipboard and the hotkeys, with well-formed
// and hostile values; and the conversion into desktop coordinates.
#include "desktop/ApplicationNames.h"
#include "desktop/gnome/GnomeSeams.h"
#include "desktop/gnome/GnomeShell.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

GVariantPtr Parse(const std::string& text) {
  GVariant* value = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr);
  EXPECT_NE(value, nullptr) << text;
  return GVariantPtr(value ? g_variant_ref_sink(value) : nullptr);
}

const char* const kWindow =
    "{'id': <uint64 12>, 'pid': <300>, 'wm_class': <'Evince'>, 'wm_instance': <'evince'>, "
    "'app_id': <'org.gnome.Evince'>, 'title': <'Paper.pdf'>, 'x': <1700>, 'y': <40>, 'width': "
    "<800>, 'height': <600>, 'normal': <true>, 'full_screen': <false>, 'maximized': <true>, "
    "'focused': <true>, 'on_active_workspace': <false>}";

// The window with one field replaced (or removed when `value` is empty).
std::string WindowWith(const std::string& field, const std::string& value) {
  std::string text = kWindow;
  size_t start = text.find("'" + field + "': ");
  size_t end = text.find('>', start) + 1;
  if (value.empty()) {
    if (text[end] == ',')
      text.erase(start, end + 2 - start);
    else
      text.erase(start - 2, end - start + 2); // the last field, with the ", " before it
  } else {
    text.replace(start, end - start, "'" + field + "': " + value);
  }
  return text;
}

TEST(GnomeShellAnswersTest, AWellFormedWindowIsReadFieldByField) {
  std::string why;
  std::optional<ShellWindow> window = ParseShellWindow(Parse(kWindow).get(), why);
  ASSERT_TRUE(window) << why;
  EXPECT_EQ(window->id, 12u);
  EXPECT_EQ(window->pid, 300);
  EXPECT_EQ(window->wm_class, "Evince");
  EXPECT_EQ(window->wm_instance, "evince");
  EXPECT_EQ(window->app_id, "org.gnome.Evince");
  EXPECT_EQ(window->title, "Paper.pdf");
  EXPECT_EQ(window->frame, (Rect{1700, 40, 800, 600}));
  EXPECT_TRUE(window->normal);
  EXPECT_FALSE(window->full_screen);
  EXPECT_TRUE(window->maximized);
  EXPECT_TRUE(window->focused);
  EXPECT_FALSE(window->on_active_workspace);
}

TEST(GnomeShellAnswersTest, AWindowWithAMissingWrongOrImpossibleFieldIsRefused) {
  struct Case {
    const char* field;
    const char* value; // "" removes the field
  };
  for (const Case& c : std::initializer_list<Case>{
           {"id", ""},
           {"id", "<int32 12>"},
           {"pid", "<-1>"},
           {"pid", "<'300'>"},
           {"pid", "<int64 300>"},
           {"wm_class", "<42>"},
           {"title", ""},
           {"x", "<1000001>"},
           {"y", "<-1000001>"},
           {"x", "<1.5>"},
           {"width", "<0>"},
           {"height", "<-600>"},
           {"height", "<2000000>"},
           {"normal", "<'yes'>"},
           {"full_screen", ""},
           {"focused", "<1>"},
           {"on_active_workspace", ""},
       }) {
    std::string text = WindowWith(c.field, c.value);
    std::string why;
    EXPECT_EQ(ParseShellWindow(Parse(text).get(), why), std::nullopt) << text;
    EXPECT_FALSE(why.empty()) << text;
  }
  std::string why;
  EXPECT_EQ(ParseShellWindow(Parse("('not', 'a dictionary')").get(), why), std::nullopt);
  EXPECT_EQ(ParseShellWindow(nullptr, why), std::nullopt);
  EXPECT_EQ(ParseShellWindow(Parse("@a{sv} {}").get(), why), std::nullopt);
}

TEST(GnomeShellAnswersTest, AnOverlongTitleIsRefusedAndExtraFieldsAreIgnored) {
  std::string why;
  std::string huge(kShellMaxNameBytes + 1, 'x');
  EXPECT_EQ(ParseShellWindow(Parse(WindowWith("title", "<'" + huge + "'>")).get(), why),
            std::nullopt);
  std::string longest(kShellMaxNameBytes, 'x');
  EXPECT_TRUE(ParseShellWindow(Parse(WindowWith("title", "<'" + longest + "'>")).get(), why));
  std::string extra = std::string(kWindow);
  extra.insert(1, "'surprise': <[1, 2, 3]>, ");
  EXPECT_TRUE(ParseShellWindow(Parse(extra).get(), why)) << why;
}

TEST(GnomeShellAnswersTest, AListKeepsItsGoodWindowsAndRefusesWhenTooLong) {
  std::string why;
  size_t left_out = 0;
  // A window of negative width is malformed; one without area yet (not
  // shown) is left out without being counted.
  std::string list = std::string("[") + kWindow + ", " + WindowWith("width", "<-4>") + ", " +
                     WindowWith("height", "<0>") + ", " + kWindow + "]";
  std::optional<std::vector<ShellWindow>> windows =
      ParseShellWindowList(Parse(list).get(), left_out, why);
  ASSERT_TRUE(windows);
  EXPECT_EQ(windows->size(), 2u);
  EXPECT_EQ(left_out, 1u);
  EXPECT_EQ(why, "a window with a missing or impossible frame");

  EXPECT_EQ(ParseShellWindowList(Parse("['a', 'b']").get(), left_out, why), std::nullopt);
  // kShellMaxWindows + 1 empty dictionaries.
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
  for (size_t i = 0; i <= kShellMaxWindows; ++i)
    g_variant_builder_add_value(&builder, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0));
  GVariantPtr huge(g_variant_ref_sink(g_variant_builder_end(&builder)));
  EXPECT_EQ(ParseShellWindowList(huge.get(), left_out, why), std::nullopt);
  EXPECT_EQ(why, "a window list that is not a list of at most 10000");
}

TEST(GnomeShellAnswersTest, MonitorsAreCheckedAndBecomeScreensThePrimaryFirst) {
  std::string why;
  std::optional<ShellMonitors> monitors = ParseShellMonitors(
      Parse("([(-1280, 200, 1280, 800, -1280, 200, 1280, 760), (0, 0, 1920, 1080, 0, 27, "
            "1920, 1053)], 1)")
          .get(),
      why);
  ASSERT_TRUE(monitors) << why;
  EXPECT_EQ(monitors->primary, 1u);
  std::vector<Screen> screens = ScreensFromShell(*monitors);
  ASSERT_EQ(screens.size(), 2u);
  EXPECT_EQ(screens[0], (Screen{0, {0, 0, 1920, 1080}, {0, 0, 1920, 1053}}));
  // Left of the primary, its top 200 below the primary's: y up from the
  // primary's bottom, 1080 - (200 + 800) = 80.
  EXPECT_EQ(screens[1], (Screen{1, {-1280, 80, 1280, 800}, {-1280, 120, 1280, 760}}));

  for (const char* hostile :
       {"(@a(iiiiiiii) [], 0)", "([(0, 0, 10, 10, 0, 0, 10, 10)], 1)",
        "([(0, 0, 10, 10, 0, 0, 10, 10)], -1)", "([(0, 0, 10, 0, 0, 0, 10, 10)], 0)",
        "([(0, 0, 10, 10, 0, 0, 10, -1)], 0)", "([(0, -1000001, 10, 10, 0, 0, 10, 10)], 0)",
        "([(0, 0, 10, 10)], 0)", "('monitors',)"}) {
    EXPECT_EQ(ParseShellMonitors(Parse(hostile).get(), why), std::nullopt) << hostile;
  }
}

TEST(GnomeShellAnswersTest, WindowsBecomeDesktopFramesOfThePrimary) {
  std::string why;
  std::optional<ShellWindow> window = ParseShellWindow(Parse(kWindow).get(), why);
  ASSERT_TRUE(window);
  Rect primary{0, 0, 1600, 1000};
  WindowInfo info = WindowInfoFromShell(*window, primary);
  EXPECT_EQ(info.frame, (Rect{1700, 360, 800, 600}));
  EXPECT_EQ(info.id, 12u);
  EXPECT_TRUE(info.normal);
  FrontWindow front = FrontWindowFromShell(*window, primary);
  EXPECT_EQ(front.frame, std::optional<Rect>(Rect{1700, 360, 800, 600}));
  EXPECT_EQ(front.wm_instance, "evince");
}

TEST(GnomeShellAnswersTest, TheClipboardIsCheckedTypeByType) {
  std::string why;
  std::optional<ClipboardContents> contents = ParseShellClipboard(
      Parse("([('text/plain', [byte 0x61, 0x00]), ('x-special/gnome-copied-files', @ay [])],)")
          .get(),
      why);
  ASSERT_TRUE(contents) << why;
  EXPECT_EQ(*contents, (ClipboardContents{{"text/plain", std::string("a\0", 2)},
                                          {"x-special/gnome-copied-files", ""}}));
  EXPECT_EQ(ParseShellClipboard(Parse("([('', [byte 0x61])],)").get(), why), std::nullopt);
  EXPECT_EQ(
      ParseShellClipboard(Parse("([('" + std::string(256, 't') + "', [byte 0x61])],)").get(), why),
      std::nullopt);
  EXPECT_EQ(ParseShellClipboard(Parse("([('text/plain', 'a')],)").get(), why), std::nullopt);
}

TEST(GnomeShellAnswersTest, BoundHotkeysAreReadAndAHugeAnswerIsRefused) {
  std::string why;
  std::optional<std::map<std::string, bool>> bound =
      ParseShellBoundHotkeys(Parse("({'summon': true, 'talk': false},)").get(), why);
  ASSERT_TRUE(bound);
  EXPECT_EQ(*bound, (std::map<std::string, bool>{{"summon", true}, {"talk", false}}));
  std::string many = "({";
  for (size_t i = 0; i <= kShellMaxHotkeys; ++i)
    many += std::string(i ? ", " : "") + "'k" + std::to_string(i) + "': true";
  EXPECT_EQ(ParseShellBoundHotkeys(Parse(many + "},)").get(), why), std::nullopt);
  EXPECT_EQ(ParseShellBoundHotkeys(Parse("({'summon': 1},)").get(), why), std::nullopt);
}

TEST(GnomeShellAnswersTest, AnApplicationsPidsComeFromAnyOfItsWindowsNames) {
  std::vector<NamedWindow> windows{{300, {"Evince", "evince", "org.gnome.Evince"}},
                                   {301, {"XTerm", "xterm", ""}},
                                   {300, {"Evince", "evince", ""}},
                                   {0, {"Evince"}},
                                   {302, {"", "", "org.gnome.Evince"}}};
  EXPECT_EQ(PidsOfApplication("evince", windows), (std::vector<int>{300}));
  EXPECT_EQ(PidsOfApplication("org.gnome.Evince.desktop", windows), (std::vector<int>{300, 302}));
  EXPECT_EQ(PidsOfApplication("XTERM", windows), (std::vector<int>{301}));
  EXPECT_TRUE(PidsOfApplication("", windows).empty());
  EXPECT_TRUE(PidsOfApplication("okular", windows).empty());
}

} // namespace
} // namespace orvane
