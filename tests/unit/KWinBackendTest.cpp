// The pure pieces of the KDE Plasma (KWin) desktop backend: the portal's
// trigger notation, the app scope's cgroup test, the script text's escaping
// and the checks on what a KWin script answers.
#include "desktop/kwin/AppScope.h"
#include "desktop/kwin/KWinScreens.h"
#include "desktop/kwin/KWinScripting.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/kwin/PortalHotkeys.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

using nlohmann::json;

TEST(PortalTriggerTest, GtkAcceleratorsBecomeThePortalsNotation) {
  EXPECT_EQ(PortalTrigger("<Alt>b"), "ALT+b");
  EXPECT_EQ(PortalTrigger("<Control><Shift>F5"), "CTRL+SHIFT+F5");
  EXPECT_EQ(PortalTrigger("<Primary>q"), "CTRL+q");
  EXPECT_EQ(PortalTrigger("<Ctrl><Mod1>v"), "CTRL+ALT+v");
  EXPECT_EQ(PortalTrigger("<Super>space"), "LOGO+space");
  EXPECT_EQ(PortalTrigger("<alt>b"), "ALT+b");
  EXPECT_EQ(PortalTrigger("<Alt><Alt>b"), "ALT+b");
  EXPECT_EQ(PortalTrigger("Print"), "Print");
}

TEST(PortalTriggerTest, TextThatIsNoAcceleratorHasNoTrigger) {
  for (const char* text : {"", "<Alt>", "<Bogus>b", "<Alt", "<Alt>b+c", "<Alt>b\n", "<Alt>b c",
                           "<Alt><>b", "<Alt>\xc3\xa9", "<Alt>b\"", "ALT+b"})
    EXPECT_EQ(PortalTrigger(text), std::nullopt) << text;
  EXPECT_EQ(PortalTrigger("<Alt>" + std::string(5000, 'b')), std::nullopt);
}

TEST(PortalRequestPathTest, TheSendersNameWithoutColonAndDots) {
  EXPECT_EQ(PortalRequestPath(":1.42", "orvane_7"),
            "/org/freedesktop/portal/desktop/request/1_42/orvane_7");
}

GVariant* Results(const char* text) {
  return g_variant_ref_sink(g_variant_new_parsed(text));
}

TEST(BoundShortcutIdsTest, TheShortcutsTheResponseNames) {
  GVariantPtr results(Results("{'shortcuts': <[('summon', {'description': <'Summon'>}), "
                              "('quote', @a{sv} {})]>}"));
  EXPECT_EQ(BoundShortcutIds(results.get()), (std::set<std::string>{"summon", "quote"}));
  GVariantPtr none(Results("{'shortcuts': <@a(sa{sv}) []>}"));
  EXPECT_EQ(BoundShortcutIds(none.get()), std::set<std::string>{});
}

TEST(BoundShortcutIdsTest, MalformedResultsNameNothing) {
  EXPECT_EQ(BoundShortcutIds(nullptr), std::nullopt);
  GVariantPtr missing(Results("{'other': <1>}"));
  EXPECT_EQ(BoundShortcutIds(missing.get()), std::nullopt);
  GVariantPtr wrong_type(Results("{'shortcuts': <['summon']>}"));
  EXPECT_EQ(BoundShortcutIds(wrong_type.get()), std::nullopt);
  GVariantPtr not_a_dict(Results("('summon', 1)"));
  EXPECT_EQ(BoundShortcutIds(not_a_dict.get()), std::nullopt);
}

TEST(PortalHotkeysTest, WithoutABusNothingIsBoundAndOneLineSaysWhy) {
  LogCapture log;
  PortalHotkeys hotkeys(nullptr);
  int fired = 0;
  std::vector<Hotkeys::Request> requests{
      {"summon", "Summon Orvane", "<Alt>b", [&](uint32_t) { ++fired; }},
      {"quote", "Quote", "<Alt>q", [&](uint32_t) { ++fired; }}};
  EXPECT_EQ(hotkeys.bindAll(requests), (std::vector<bool>{false, false}));
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "hotkeys: the GlobalShortcuts portal cannot be reached: no session "
                                "bus"}));
  EXPECT_EQ(fired, 0);
}

TEST(PortalHotkeysTest, ASingleChordIsRefusedWithALine) {
  LogCapture log;
  PortalHotkeys hotkeys(nullptr);
  EXPECT_FALSE(hotkeys.bind("<Alt>b", [](uint32_t) {}));
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_NE(log.messages()[0].find("hotkeys: <Alt>b not bound"), std::string::npos);
}

TEST(AppScopeTest, TheLastElementOfACgroupPathNamesTheScope) {
  EXPECT_TRUE(CgroupIsAppScope("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                               "app-com.tarnwick.orvane-1.scope\n"));
  EXPECT_TRUE(CgroupIsAppScope("12:cpu:/\n1:name=systemd:/user.slice/app.slice/"
                               "app-com.tarnwick.orvane-abc.scope\n0::/\n"));
  EXPECT_FALSE(CgroupIsAppScope("0::/user.slice/user-1000.slice/session-2.scope\n"));
  EXPECT_FALSE(CgroupIsAppScope("0::/app.slice/app-com.tarnwick.orvanex-1.scope\n"));
  EXPECT_FALSE(CgroupIsAppScope("0::/app.slice/app-com.tarnwick.orvane-.scope\n"));
  EXPECT_FALSE(CgroupIsAppScope("0::/app.slice/app-com.tarnwick.orvane-1.scope/inner\n"));
  EXPECT_FALSE(CgroupIsAppScope("0::/app.slice/app-org.gnome.Terminal-1.scope\n"));
  EXPECT_FALSE(CgroupIsAppScope("app-com.tarnwick.orvane-1.scope\n"));
  EXPECT_FALSE(CgroupIsAppScope(""));
}

TEST(AppScopeTest, TheUnitName) {
  EXPECT_EQ(AppScopeUnitName("a1b2"), "app-com.tarnwick.orvane-a1b2.scope");
}

TEST(AppScopeTest, TheTransientUnitsArguments) {
  GVariantPtr parameters(
      g_variant_ref_sink(TransientScopeParameters(AppScopeUnitName("a1b2"), 4242)));
  EXPECT_STREQ(g_variant_get_type_string(parameters.get()), "(ssa(sv)a(sa(sv)))");
  GCharPtr text(g_variant_print(parameters.get(), TRUE));
  EXPECT_EQ(text.str(), "('app-com.tarnwick.orvane-a1b2.scope', 'fail', [('PIDs', <[uint32 "
                        "4242]>), ('Description', <'Orvane'>)], @a(sa(sv)) [])");
}

TEST(AppScopeTest, AlreadyInTheScopeNothingIsAskedOrLogged) {
  LogCapture log;
  TempDir dir;
  std::string cgroup =
      dir.write("cgroup", "0::/user.slice/app.slice/app-com.tarnwick.orvane-7.scope\n");
  EXPECT_TRUE(EnsureAppScope(nullptr, cgroup));
  EXPECT_TRUE(log.messages().empty());
}

TEST(AppScopeTest, WithoutABusOneLineSaysTheMoveCannotBeMade) {
  LogCapture log;
  TempDir dir;
  std::string cgroup = dir.write("cgroup", "0::/user.slice/session-1.scope\n");
  EXPECT_FALSE(EnsureAppScope(nullptr, cgroup));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"hotkeys: cannot move into a systemd scope (no session bus) "
                                      "— the desktop may not know Orvane's shortcuts"}));
}

TEST(ScriptStringTest, EveryValueStaysOneStringLiteral) {
  EXPECT_EQ(ScriptString("plain"), "\"plain\"");
  EXPECT_EQ(ScriptString("a\"b\\c\nd"), "\"a\\\"b\\\\c\\nd\"");
  EXPECT_EQ(ScriptString("\"); workspace.activeClient = null; (\""),
            "\"\\\"); workspace.activeClient = null; (\\\"\"");
  // Line and paragraph separators end a line in JavaScript source.
  EXPECT_EQ(ScriptString("a\xe2\x80\xa8"
                         "b\xe2\x80\xa9"),
            "\"a\\u2028b\\u2029\"");
  EXPECT_EQ(ScriptString("caf\xc3\xa9"), "\"caf\\u00e9\"");
  // Bytes that are not UTF-8 arrive as U+FFFD.
  EXPECT_EQ(ScriptString("a\xff"), "\"a\\ufffd\"");
  EXPECT_EQ(ScriptString(std::string("a\0b", 3)), "\"a\\ufffdb\"");
  for (unsigned char c : ScriptString("\x01\x1f\x7f\xc3\xa9\xe2\x80\xa8"))
    EXPECT_TRUE(c >= 0x20 && c < 0x7f) << int(c);
}

TEST(ScriptNumberTest, OnlyFiniteNumbers) {
  EXPECT_EQ(ScriptNumber(12), "12.0");
  EXPECT_EQ(ScriptNumber(-3.5), "-3.5");
  EXPECT_EQ(ScriptNumber(std::numeric_limits<double>::infinity()), std::nullopt);
  EXPECT_EQ(ScriptNumber(std::nan("")), std::nullopt);
}

TEST(KWinScriptTextTest, ServiceAndTokenAreLiteralsAndNoValueIsTakenForAPlaceholder) {
  std::string text = KWinScriptText(":1.7", "@BODY@\"); evil(); (\"", "return 42;");
  EXPECT_NE(text.find("var service = \":1.7\", token = \"@BODY@\\\"); evil(); (\\\"\";"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("return 42;"), text.rfind("return 42;"));
  EXPECT_NE(text.find("callDBus(service, \"/com/tarnwick/orvane/KWinScript\", "
                      "\"com.tarnwick.orvane.KWinScript\", \"Answer\", token, "
                      "JSON.stringify(answer));"),
            std::string::npos);
  EXPECT_EQ(text.find("@SERVICE@"), std::string::npos);
  EXPECT_EQ(text.find("@PATH@"), std::string::npos);
}

TEST(ParseScriptAnswerTest, AResultAndTheScreens) {
  std::string why;
  auto answer = ParseScriptAnswer(
      R"({"ok":true,"result":{"a":1},"screens":[{"x":0,"y":0,"width":1600,"height":1000},)"
      R"({"x":1600,"y":0,"width":1600,"height":1000}]})",
      why);
  ASSERT_TRUE(answer) << why;
  EXPECT_EQ(answer->result, json({{"a", 1}}));
  EXPECT_EQ(answer->screens, (std::vector<Rect>{{0, 0, 1600, 1000}, {1600, 0, 1600, 1000}}));
  auto empty = ParseScriptAnswer(R"({"ok":true})", why);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->result.is_null());
}

TEST(ParseScriptAnswerTest, HostileAnswersAreRefusedWithAReason) {
  std::string why;
  EXPECT_FALSE(ParseScriptAnswer("not json", why));
  EXPECT_EQ(why, "an answer that is not a JSON object");
  EXPECT_FALSE(ParseScriptAnswer("[1,2]", why));
  EXPECT_FALSE(ParseScriptAnswer(R"({"result":1})", why));
  EXPECT_EQ(why, "an answer without its outcome");
  EXPECT_FALSE(ParseScriptAnswer(R"({"ok":"yes"})", why));
  EXPECT_FALSE(ParseScriptAnswer(R"({"ok":false,"error":"TypeError: x is undefined"})", why));
  EXPECT_EQ(why, "the script failed: TypeError: x is undefined");
  EXPECT_FALSE(ParseScriptAnswer(R"({"ok":true,"screens":"all"})", why));
  EXPECT_EQ(why, "an answer with a malformed screen list");
  EXPECT_FALSE(
      ParseScriptAnswer(R"({"ok":true,"screens":[{"x":0,"y":0,"width":-1,"height":1}]})", why));
  EXPECT_FALSE(
      ParseScriptAnswer(R"({"ok":true,"screens":[{"x":1e300,"y":0,"width":1,"height":1}]})", why));
  EXPECT_FALSE(
      ParseScriptAnswer(R"({"ok":true,"screens":[{"x":"0","y":0,"width":1,"height":1}]})", why));
  EXPECT_FALSE(
      ParseScriptAnswer(R"({"ok":true,"result":)" + std::string(kMaxScriptAnswer, '1') + "}", why));
  EXPECT_EQ(why, "an answer of " + std::to_string(kMaxScriptAnswer + 21) + " bytes");
  // Deep nesting within the size limit neither crashes nor passes.
  EXPECT_FALSE(ParseScriptAnswer(std::string(500000, '[') + std::string(500000, ']'), why));
  EXPECT_FALSE(ParseScriptAnswer(std::string("{\"ok\":true,\"result\":\"\xff", 21), why));
}

json Window() {
  return json::parse(R"({"id":"{0b8e3c2a-1111-4222-8333-944455556666}","pid":4242,
    "caption":"Report.pdf — Viewer","resourceClass":"org.gnome.Evince","resourceName":"evince",
    "desktopFileName":"org.gnome.Evince","normal":true,"fullScreen":false,
    "frame":{"x":1700,"y":100,"width":400,"height":300}})");
}

TEST(ParseKWinWindowTest, EveryField) {
  std::string why;
  auto window = ParseKWinWindow(Window(), why);
  ASSERT_TRUE(window) << why;
  EXPECT_EQ(window->internal_id, "{0b8e3c2a-1111-4222-8333-944455556666}");
  EXPECT_EQ(window->pid, 4242);
  EXPECT_EQ(window->caption, "Report.pdf — Viewer");
  EXPECT_EQ(window->resource_class, "org.gnome.Evince");
  EXPECT_EQ(window->resource_name, "evince");
  EXPECT_EQ(window->desktop_file_name, "org.gnome.Evince");
  EXPECT_TRUE(window->normal);
  EXPECT_FALSE(window->full_screen);
  EXPECT_EQ(window->frame, (Rect{1700, 100, 400, 300}));
}

TEST(ParseKWinWindowTest, NamesGivenAsBytesAreDecoded) {
  json value = Window();
  value["resourceClass"] = json::array({120, 116, 101, 114, 109}); // "xterm"
  value["caption"] = json::array({0x61, 0xff});
  value["frame"] = nullptr;
  std::string why;
  auto window = ParseKWinWindow(value, why);
  ASSERT_TRUE(window) << why;
  EXPECT_EQ(window->resource_class, "xterm");
  EXPECT_EQ(window->caption, "a\xef\xbf\xbd");
  EXPECT_EQ(window->frame, std::nullopt);
}

TEST(ParseKWinWindowTest, WrongTypesAndImpossibleValuesAreRefused) {
  auto refused = [](const char* field, json value) {
    json window = Window();
    if (value.is_discarded())
      window.erase(field);
    else
      window[field] = value;
    std::string why;
    bool parsed = bool(ParseKWinWindow(window, why));
    return !parsed && !why.empty();
  };
  json gone = json(json::value_t::discarded);
  EXPECT_TRUE(refused("id", gone));
  EXPECT_TRUE(refused("id", ""));
  EXPECT_TRUE(refused("id", 17));
  EXPECT_TRUE(refused("id", std::string(65, 'a')));
  EXPECT_TRUE(refused("pid", "4242"));
  EXPECT_TRUE(refused("pid", 1.5));
  EXPECT_TRUE(refused("pid", -1));
  EXPECT_TRUE(refused("pid", 1e12));
  EXPECT_TRUE(refused("pid", gone));
  EXPECT_TRUE(refused("caption", json::object()));
  EXPECT_TRUE(refused("caption", std::string(64 * 1024 + 1, 'x')));
  EXPECT_TRUE(refused("resourceClass", json::array({256})));
  EXPECT_TRUE(refused("resourceClass", json::array({"a"})));
  EXPECT_TRUE(refused("normal", gone));
  EXPECT_TRUE(refused("normal", 1));
  EXPECT_TRUE(refused("fullScreen", "false"));
  EXPECT_TRUE(refused("frame", json::array({0, 0, 1, 1})));
  EXPECT_TRUE(refused("frame", json({{"x", 0}, {"y", 0}, {"width", 1}})));
  std::string why;
  EXPECT_FALSE(ParseKWinWindow(json::array(), why));
  EXPECT_FALSE(ParseKWinWindow(json("window"), why));
}

TEST(KWinCoordinatesTest, TopLeftSpaceBecomesTheDesktopsAndBack) {
  Rect primary{0, 0, 1600, 1000};
  EXPECT_EQ(DesktopRectFromKWin({1700, 100, 400, 300}, primary), (Rect{1700, 600, 400, 300}));
  EXPECT_EQ(KWinRectFromDesktop({1700, 600, 400, 300}, primary), (Rect{1700, 100, 400, 300}));
  Rect offset{200, 50, 1280, 800};
  Rect kwin{300, 150, 640, 480};
  EXPECT_EQ(KWinRectFromDesktop(DesktopRectFromKWin(kwin, offset), offset), kwin);
  EXPECT_EQ(DesktopRectFromKWin(offset, offset), (Rect{0, 0, 1280, 800}));
}

TEST(WindowInfoFromKWinTest, TheSeamsFieldsInDesktopCoordinates) {
  std::string why;
  KWinWindow window = *ParseKWinWindow(Window(), why);
  WindowInfo info = WindowInfoFromKWin(window, 7, Rect{0, 0, 1600, 1000});
  EXPECT_EQ(info.id, 7u);
  EXPECT_EQ(info.pid, 4242);
  EXPECT_TRUE(info.normal);
  EXPECT_EQ(info.title, "Report.pdf — Viewer");
  EXPECT_EQ(info.wm_instance, "evince");
  EXPECT_EQ(info.wm_class, "org.gnome.Evince");
  EXPECT_EQ(info.frame, (Rect{1700, 600, 400, 300}));
  EXPECT_FALSE(info.full_screen);
}

TEST(ParseKWinWindowListTest, AHostileWindowIsLeftOutAndTheOthersKept) {
  ScriptAnswer answer;
  answer.screens = {{0, 0, 1600, 1000}};
  json bad = Window();
  bad["pid"] = "everything";
  json other = Window();
  other["id"] = "{other}";
  answer.result = json::array({Window(), bad, other, 17});
  size_t left_out = 0;
  std::string why;
  auto windows = ParseKWinWindowList(answer, left_out, why);
  ASSERT_TRUE(windows);
  ASSERT_EQ(windows->size(), 2u);
  EXPECT_EQ((*windows)[1].internal_id, "{other}");
  EXPECT_EQ(left_out, 2u);
  EXPECT_EQ(why, "a window that is not an object");
}

TEST(ParseKWinWindowListTest, NoListOrNoScreensIsNoAnswer) {
  size_t left_out = 0;
  std::string why;
  ScriptAnswer answer;
  answer.screens = {{0, 0, 1600, 1000}};
  answer.result = json::object();
  EXPECT_FALSE(ParseKWinWindowList(answer, left_out, why));
  answer.result = json::array();
  for (int i = 0; i < 10001; ++i)
    answer.result.push_back(Window());
  EXPECT_FALSE(ParseKWinWindowList(answer, left_out, why));
  EXPECT_EQ(why, "a window list that is not a list of at most 10000");
  answer.result = json::array({Window()});
  answer.screens.clear();
  EXPECT_FALSE(ParseKWinWindowList(answer, left_out, why));
  EXPECT_EQ(why, "a window list without the screens");
}

TEST(ParseKWinScreensTest, ScreensWorkAreasAndThePointerInDesktopCoordinates) {
  ScriptAnswer answer;
  answer.screens = {{0, 0, 1600, 1000}, {1600, 200, 1280, 800}};
  answer.result = json::parse(R"({"areas":[{"x":0,"y":0,"width":1600,"height":960},
    {"x":1600,"y":200,"width":1280,"height":800}],"pointer":{"x":1700,"y":300}})");
  std::string why;
  auto parsed = ParseKWinScreens(answer, why);
  ASSERT_TRUE(parsed) << why;
  EXPECT_EQ(parsed->screens,
            (std::vector<Screen>{{0, {0, 0, 1600, 1000}, {0, 40, 1600, 960}},
                                 {1, {1600, 0, 1280, 800}, {1600, 0, 1280, 800}}}));
  EXPECT_EQ(parsed->pointer, (Point{1700, 700}));
}

TEST(ParseKWinScreensTest, MalformedAnswersAreRefused) {
  ScriptAnswer answer;
  answer.screens = {{0, 0, 1600, 1000}};
  std::string why;
  auto refused = [&](const char* text) {
    answer.result = json::parse(text);
    return !ParseKWinScreens(answer, why) && !why.empty();
  };
  EXPECT_TRUE(refused(R"({"areas":[],"pointer":{"x":1,"y":1}})"));
  EXPECT_TRUE(
      refused(R"({"areas":[{"x":0,"y":0,"width":1,"height":1}],"pointer":{"x":"1","y":1}})"));
  EXPECT_TRUE(refused(R"({"areas":[{"x":0,"y":0,"width":1,"height":1}],"pointer":[1,1]})"));
  EXPECT_TRUE(
      refused(R"({"areas":[{"x":0,"y":0,"width":1,"height":1}],"pointer":{"x":1e9,"y":1}})"));
  EXPECT_TRUE(
      refused(R"({"areas":[{"x":0,"y":0,"width":-1,"height":1}],"pointer":{"x":1,"y":1}})"));
  EXPECT_TRUE(refused(R"([1])"));
  answer.screens.clear();
  EXPECT_TRUE(refused(R"({"areas":[],"pointer":{"x":1,"y":1}})"));
}

TEST(KWinScriptingTest, IdsAreStableAndMapBack) {
  KWinScripting scripting(nullptr);
  unsigned long first = scripting.idFor("{a}");
  unsigned long second = scripting.idFor("{b}");
  EXPECT_NE(first, 0u);
  EXPECT_NE(first, second);
  EXPECT_EQ(scripting.idFor("{a}"), first);
  EXPECT_EQ(scripting.internalIdOf(second), "{b}");
  EXPECT_EQ(scripting.internalIdOf(999), std::nullopt);
}

TEST(KWinScriptingTest, WithoutABusNoQueryIsAnsweredAndTheLogSaysWhy) {
  LogCapture log;
  KWinScripting scripting(nullptr);
  KWinWindows windows(scripting);
  KWinFrontWindows front(scripting);
  EXPECT_EQ(front.frontWindow(), std::nullopt);
  EXPECT_TRUE(windows.normalWindows().empty());
  EXPECT_EQ(windows.windowsOfPid(getpid()), std::nullopt);
  EXPECT_FALSE(windows.setFrame(scripting.idFor("{a}"), {0, 0, 10, 10}));
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(log.messages()[0], "kwin: no answer from KWin's scripting: no session bus");
}

} // namespace
} // namespace orvane
