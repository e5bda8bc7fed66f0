#include "desktop/DesktopChooser.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

SessionFacts X11Session() {
  SessionFacts facts;
  facts.x_display = ":0";
  facts.session_type = "x11";
  facts.current_desktop = "XFCE";
  return facts;
}

SessionFacts WaylandSession(const std::string& desktop, bool kwin_answers = false,
                            bool gnome_answers = false) {
  SessionFacts facts;
  facts.wayland_display = "wayland-0";
  facts.x_display = ":0"; // XWayland
  facts.session_type = "wayland";
  facts.current_desktop = desktop;
  facts.kwin_answers = kwin_answers;
  facts.gnome_answers = gnome_answers;
  return facts;
}

TEST(DesktopChooserTest, AnX11SessionGetsTheX11Backend) {
  EXPECT_EQ(ChooseDesktop(X11Session(), "auto"), (DesktopChoice{DesktopKind::kX11, "", ""}));
  // A Wayland session type without a Wayland display to open is X11 to GDK.
  SessionFacts stale = X11Session();
  stale.session_type = "wayland";
  EXPECT_EQ(ChooseDesktop(stale, "auto").kind, DesktopKind::kX11);
}

TEST(DesktopChooserTest, KdeOnWaylandGetsKWinOnlyWhenKWinAnswers) {
  EXPECT_EQ(ChooseDesktop(WaylandSession("KDE", true), "auto"),
            (DesktopChoice{DesktopKind::kKWin, "KDE Plasma", ""}));
  EXPECT_EQ(ChooseDesktop(WaylandSession("KDE", false), "auto"),
            (DesktopChoice{DesktopKind::kWaylandWithoutMeans, "KDE Plasma", ""}));
}

TEST(DesktopChooserTest, GnomeOnWaylandGetsTheGnomeBackendOnlyWhenTheShellAnswers) {
  EXPECT_EQ(ChooseDesktop(WaylandSession("ubuntu:GNOME", false, true), "auto"),
            (DesktopChoice{DesktopKind::kGnome, "GNOME", ""}));
  EXPECT_EQ(ChooseDesktop(WaylandSession("GNOME", false, true), "auto"),
            (DesktopChoice{DesktopKind::kGnome, "GNOME", ""}));
  EXPECT_EQ(ChooseDesktop(WaylandSession("GNOME", false, false), "auto"),
            (DesktopChoice{DesktopKind::kWaylandWithoutMeans, "GNOME", ""}));
  // GNOME Shell answering on the bus of another desktop is not GNOME's.
  EXPECT_EQ(ChooseDesktop(WaylandSession("KDE", false, true), "auto").kind,
            DesktopKind::kWaylandWithoutMeans);
  EXPECT_EQ(ChooseDesktop(WaylandSession("sway", false, true), "auto").kind,
            DesktopKind::kWaylandWithoutMeans);
  // An X11 GNOME session stays X11.
  SessionFacts x11_gnome = X11Session();
  x11_gnome.current_desktop = "GNOME";
  x11_gnome.gnome_answers = true;
  EXPECT_EQ(ChooseDesktop(x11_gnome, "auto").kind, DesktopKind::kX11);
}

TEST(DesktopChooserTest, TheSettingGnomeIsFollowedWhereTheShellAnswers) {
  EXPECT_EQ(ChooseDesktop(WaylandSession("KDE", true, true), "gnome"),
            (DesktopChoice{DesktopKind::kGnome, "GNOME", ""}));
  DesktopChoice silent = ChooseDesktop(WaylandSession("GNOME", false, false), "gnome");
  EXPECT_EQ(silent.kind, DesktopKind::kWaylandWithoutMeans);
  EXPECT_EQ(silent.setting_note,
            "the setting asks for GNOME, but GNOME Shell does not answer on the bus");
  DesktopChoice on_x11 = ChooseDesktop(X11Session(), "gnome");
  EXPECT_EQ(on_x11.kind, DesktopKind::kX11);
  EXPECT_EQ(on_x11.setting_note, "the setting asks for GNOME, but this is not a Wayland session");
  EXPECT_EQ(ChooseDesktop(WaylandSession("GNOME", false, true), "x11").kind, DesktopKind::kX11);
  EXPECT_NE(ChooseDesktop(X11Session(), "GNOMEx").setting_note.find("auto, x11, kwin, gnome"),
            std::string::npos);
}

TEST(DesktopChooserTest, OtherWaylandDesktopsHaveNoMeansAndAreNamed) {
  EXPECT_EQ(ChooseDesktop(WaylandSession("ubuntu:GNOME"), "auto"),
            (DesktopChoice{DesktopKind::kWaylandWithoutMeans, "GNOME", ""}));
  EXPECT_EQ(ChooseDesktop(WaylandSession("sway"), "auto").desktop_name, "sway");
  EXPECT_EQ(ChooseDesktop(WaylandSession("Hyprland"), "auto").desktop_name, "Hyprland");
  EXPECT_EQ(ChooseDesktop(WaylandSession(""), "auto").desktop_name, "an unnamed desktop");
  // KWin answering on the bus of a desktop that is not KDE is not KDE's.
  EXPECT_EQ(ChooseDesktop(WaylandSession("GNOME", true), "auto").kind,
            DesktopKind::kWaylandWithoutMeans);
}

TEST(DesktopChooserTest, TheSettingOverridesTheSession) {
  EXPECT_EQ(ChooseDesktop(WaylandSession("KDE", true), "x11"),
            (DesktopChoice{DesktopKind::kX11, "", ""}));
  EXPECT_EQ(ChooseDesktop(WaylandSession("GNOME", true), "kwin"),
            (DesktopChoice{DesktopKind::kKWin, "KDE Plasma", ""}));
}

TEST(DesktopChooserTest, ASettingThatCannotBeFollowedIsSaidAndTheSessionDecides) {
  DesktopChoice on_x11 = ChooseDesktop(X11Session(), "kwin");
  EXPECT_EQ(on_x11.kind, DesktopKind::kX11);
  EXPECT_EQ(on_x11.setting_note, "the setting asks for KWin, but this is not a Wayland session");
  DesktopChoice silent_kwin = ChooseDesktop(WaylandSession("KDE", false), "kwin");
  EXPECT_EQ(silent_kwin.kind, DesktopKind::kWaylandWithoutMeans);
  EXPECT_EQ(silent_kwin.setting_note,
            "the setting asks for KWin, but KWin does not answer on the bus");
  DesktopChoice unknown = ChooseDesktop(WaylandSession("KDE", true), "weston\nforged line");
  EXPECT_EQ(unknown.kind, DesktopKind::kKWin);
  EXPECT_NE(unknown.setting_note.find("names no desktop backend"), std::string::npos);
  EXPECT_EQ(ChooseDesktop(X11Session(), std::string(100000, 'x')).setting_note.size() < 200, true);
}

TEST(DesktopChooserTest, AHostileDesktopNameIsShortened) {
  DesktopChoice choice = ChooseDesktop(WaylandSession(std::string(5000, 'A') + ":GNOME"), "auto");
  EXPECT_EQ(choice.desktop_name, "GNOME");
  choice = ChooseDesktop(WaylandSession(std::string(5000, 'A')), "auto");
  EXPECT_LE(choice.desktop_name.size(), 50u);
}

} // namespace
} // namespace orvane

namespace orvane {
namespace {

TEST(WaylandWithoutMeansTest, SaysWhatIsMissingAndPretendsNothing) {
  std::unique_ptr<DesktopBackend> backend =
      MakeDesktopBackend(DesktopChoice{DesktopKind::kWaylandWithoutMeans, "GNOME", ""});
  EXPECT_EQ(backend->description(), "GNOME (Wayland) — no backend");
  EXPECT_TRUE(backend->lacksMeans());
  std::unique_ptr<Accessibility> accessibility = backend->makeAccessibility();
  EXPECT_FALSE(accessibility->isTrusted());
  EXPECT_NE(accessibility->reasonNotTrusted().find("orvane --capture-selection"),
            std::string::npos);
  EXPECT_NE(accessibility->reasonNotTrusted().find("GNOME"), std::string::npos);

  std::unique_ptr<Hotkeys> hotkeys = backend->makeHotkeys();
  int fired = 0;
  std::vector<Hotkeys::Request> requests{{"summon", "d", "<Alt>b", [&](uint32_t) { ++fired; }},
                                         {"quote", "d", "<Alt>c", [&](uint32_t) { ++fired; }}};
  EXPECT_EQ(hotkeys->bindAll(requests), (std::vector<bool>{false, false}));

  EXPECT_EQ(backend->makeFrontWindows()->frontWindow(), std::nullopt);
  std::unique_ptr<Selections> selections = backend->makeSelections();
  EXPECT_EQ(selections->primaryText(), std::nullopt);
  EXPECT_TRUE(selections->saveClipboard().empty());
  EXPECT_FALSE(selections->sendCopyChord(CopyChord::kControlC));
  std::unique_ptr<Windows> windows = backend->makeWindows();
  EXPECT_EQ(windows->windowsOfPid(1), std::nullopt);
  EXPECT_FALSE(windows->setFrame(1, Rect{0, 0, 100, 100}));
  EXPECT_TRUE(windows->normalWindows().empty());
}

} // namespace
} // namespace orvane
