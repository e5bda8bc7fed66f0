// Setting Orvane's GNOME Shell extension up at start-up, against a stand-in
// for GNOME Shell's org.gnome.Shell.Extensions on the test's private session
// bus and real folders: enabling a disabled extension, installing a missing
// one from the ready copy, and never touching what the user has, nor
// writing through a link or a file in the way.
#include "desktop/gnome/GnomeExtensionSetup.h"

#include "base/Paths.h"

#include "support/FakeNotifications.h"
#include "support/LogCapture.h"
#include "support/StandInShell.h"
#include "support/TempDir.h"

#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> Bus() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

bool IsFile(const std::string& path) {
  return g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR);
}

bool Exists(const std::string& path) {
  GStatBuf buffer;
  return g_lstat(path.c_str(), &buffer) == 0;
}

// A home with its folders, and a ready copy of the extension beside a
// pretend executable.
struct Places {
  TempDir dir;
  GnomeExtensionPlaces places;
  Places() {
    places.user_folder = dir.file("home/.local/share/gnome-shell/extensions");
    places.system_folders = {dir.file("usr/share/gnome-shell/extensions")};
    places.ready_copy = dir.file("build/share/gnome-shell/extensions/orvane@tarnwick.com");
    g_mkdir_with_parents((places.ready_copy + "/schemas").c_str(), 0755);
    TempDir::WriteFile(places.ready_copy + "/metadata.json", "{\"uuid\": \"orvane@tarnwick.com\"}");
    TempDir::WriteFile(places.ready_copy + "/extension.js", "// the extension\n");
    TempDir::WriteFile(places.ready_copy + "/schemas/gschemas.compiled", std::string("GVar\0x", 6));
    // A link in the ready copy is not followed into the user's folder.
    symlink("/etc/passwd", (places.ready_copy + "/passwd").c_str());
    places.ready_copy_module = dir.file("build/share/orvane/gnome-shell-45/orvane@tarnwick.com");
    g_mkdir_with_parents(places.ready_copy_module.c_str(), 0755);
    TempDir::WriteFile(places.ready_copy_module + "/metadata.json",
                       "{\"uuid\": \"orvane@tarnwick.com\", \"shell-version\": [\"45\"]}");
    TempDir::WriteFile(places.ready_copy_module + "/extension.js", "export default class {}\n");
  }
  std::string userCopy() const { return places.user_folder + "/orvane@tarnwick.com"; }
};

GnomeExtensionState RunSetup(Places& places, FakeNotifications* notifications,
                             std::string* note = nullptr) {
  auto bus = Bus();
  GnomeExtensionSetup::Options options;
  options.call_seconds = 1;
  GnomeExtensionSetup setup(bus.get(), places.places, notifications, options);
  GnomeExtensionState state = setup.run();
  if (note)
    *note = setup.noteForUser();
  return state;
}

bool Contains(const std::vector<std::string>& lines, const std::string& text) {
  for (const std::string& line : lines)
    if (line.find(text) != std::string::npos)
      return true;
  return false;
}

TEST(GnomeExtensionSetupTest, AnEnabledExtensionIsLeftAlone) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "({'uuid': <'orvane@tarnwick.com'>, 'state': <1.0>},)");
  Places places;
  FakeNotifications notifications;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kEnabled);
  EXPECT_EQ(shell.calls(), (std::vector<std::string>{"GetExtensionInfo ('orvane@tarnwick.com',)"}));
  EXPECT_TRUE(notifications.shown.empty());
  EXPECT_FALSE(Exists(places.userCopy()));
  EXPECT_TRUE(log.messages().empty());
}

TEST(GnomeExtensionSetupTest, ADisabledExtensionIsEnabledAndThatIsLogged) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "({'state': <2.0>},)");
  shell.answer("EnableExtension", "(true,)");
  Places places;
  FakeNotifications notifications;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kEnabledNow);
  EXPECT_EQ(shell.calls(), (std::vector<std::string>{"GetExtensionInfo ('orvane@tarnwick.com',)",
                                                     "EnableExtension ('orvane@tarnwick.com',)"}));
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "gnome: the extension orvane@tarnwick.com was disabled; Orvane "
                                "enabled it"}));
  EXPECT_TRUE(notifications.shown.empty());
}

TEST(GnomeExtensionSetupTest, HeldLinesAreKeptForLaterAndNotWritten) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "({'state': <2.0>},)");
  shell.answer("EnableExtension", "(true,)");
  Places places;
  auto bus = Bus();
  GnomeExtensionSetup::Options options;
  options.hold_log = true;
  GnomeExtensionSetup setup(bus.get(), places.places, nullptr, options);
  EXPECT_EQ(setup.run(), GnomeExtensionState::kEnabledNow);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(setup.heldLines(),
            (std::vector<std::string>{
                "gnome: the extension orvane@tarnwick.com was disabled; Orvane enabled it"}));
}

TEST(GnomeExtensionSetupTest, AnExtensionTheShellWillNotEnableIsSaid) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "({'state': <6.0>},)");
  shell.answer("EnableExtension", "(false,)");
  Places places;
  std::string note;
  EXPECT_EQ(RunSetup(places, nullptr, &note), GnomeExtensionState::kNotEnabled);
  EXPECT_TRUE(Contains(log.messages(), "is disabled and GNOME Shell did not enable it: refused"));
  EXPECT_NE(note.find("Extensions application"), std::string::npos) << note;
}

TEST(GnomeExtensionSetupTest, AMissingExtensionIsInstalledAndTheUserIsAskedToLogInAgain) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "(@a{sv} {},)");
  Places places;
  FakeNotifications notifications;
  std::string note;
  EXPECT_EQ(RunSetup(places, &notifications, &note), GnomeExtensionState::kInstalled);
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/metadata.json"),
            "{\"uuid\": \"orvane@tarnwick.com\"}");
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/schemas/gschemas.compiled"),
            std::string("GVar\0x", 6));
  EXPECT_TRUE(IsFile(places.userCopy() + "/extension.js"));
  EXPECT_FALSE(Exists(places.userCopy() + "/passwd"));
  // No half copy is left beside it.
  GDir* folder = g_dir_open(places.places.user_folder.c_str(), 0, nullptr);
  ASSERT_TRUE(folder);
  std::vector<std::string> names;
  while (const gchar* name = g_dir_read_name(folder))
    names.push_back(name);
  g_dir_close(folder);
  EXPECT_EQ(names, (std::vector<std::string>{"orvane@tarnwick.com"}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"gnome: installed the extension into " + places.userCopy() +
                                      "; log out and back in to finish setting up Orvane's "
                                      "GNOME extension"}));
  ASSERT_EQ(notifications.shown.size(), 1u);
  EXPECT_NE(notifications.shown[0].body.find(
                "log out and back in to finish setting up Orvane's GNOME extension"),
            std::string::npos);
  EXPECT_NE(note.find("log out and back in to finish setting up Orvane's GNOME extension"),
            std::string::npos);
  // No call enables an extension the shell does not know.
  EXPECT_EQ(shell.callsOf("EnableExtension"), 0u);
}

TEST(GnomeExtensionSetupTest, ShellVersionsAreReadByTheirFirstNumber) {
  EXPECT_EQ(ShellMajorVersion("43.9"), 43);
  EXPECT_EQ(ShellMajorVersion("45.beta"), 45);
  EXPECT_EQ(ShellMajorVersion("48"), 48);
  EXPECT_EQ(ShellMajorVersion(""), 0);
  EXPECT_EQ(ShellMajorVersion("x45"), 0);
  EXPECT_EQ(ShellMajorVersion("99999999999999"), 9999);
}

TEST(GnomeExtensionSetupTest, OnGnome45TheModuleFormIsInstalled) {
  LogCapture log;
  StandInShell shell;
  shell.shellVersion("46.2");
  shell.answer("GetExtensionInfo", "(@a{sv} {},)");
  Places places;
  FakeNotifications notifications;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kInstalled);
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/extension.js"), "export default class {}\n");
  EXPECT_EQ(notifications.shown.size(), 1u);
}

TEST(GnomeExtensionSetupTest, OnGnome45AnOlderSystemCopyGetsTheModuleFormBesideIt) {
  LogCapture log;
  StandInShell shell;
  shell.shellVersion("45.0");
  // The .deb's copy of the older form, which this shell refuses.
  shell.answer("GetExtensionInfo", "({'state': <4.0>, 'path': <'/usr/share/gnome-shell/"
                                   "extensions/orvane@tarnwick.com'>},)");
  Places places;
  FakeNotifications notifications;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kInstalled);
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/extension.js"), "export default class {}\n");
  EXPECT_TRUE(Contains(log.messages(), "GNOME Shell 45 refuses the extension's older form"));

  // A copy of the user's own is left alone, whatever the shell says of it.
  TempDir::WriteFile(places.userCopy() + "/extension.js", "// the user's\n");
  LogCapture again;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kFailed);
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/extension.js"), "// the user's\n");
}

TEST(GnomeExtensionSetupTest, OnGnome43TheOlderFormIsInstalledAndAShellWithoutAVersionToo) {
  for (const char* version : {"43.9", ""}) {
    LogCapture log;
    StandInShell shell;
    shell.shellVersion(version);
    shell.answer("GetExtensionInfo", "(@a{sv} {},)");
    Places places;
    FakeNotifications notifications;
    EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kInstalled) << version;
    EXPECT_EQ(TempDir::Read(places.userCopy() + "/extension.js"), "// the extension\n") << version;
  }
}

TEST(GnomeExtensionSetupTest, TheUsersOwnCopyIsNeverOverwritten) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "({'state': <99.0>},)");
  Places places;
  g_mkdir_with_parents(places.userCopy().c_str(), 0755);
  TempDir::WriteFile(places.userCopy() + "/metadata.json", "the user's own");
  FakeNotifications notifications;
  EXPECT_EQ(RunSetup(places, &notifications), GnomeExtensionState::kPresent);
  EXPECT_EQ(TempDir::Read(places.userCopy() + "/metadata.json"), "the user's own");
  EXPECT_FALSE(Exists(places.userCopy() + "/extension.js"));
  EXPECT_TRUE(Contains(log.messages(), "has not loaded it yet: log out and back in to finish "
                                       "setting up Orvane's GNOME extension"));
  EXPECT_EQ(notifications.shown.size(), 1u);

  // A link of the user's (a developer's checkout) counts as their copy.
  Places linked;
  g_mkdir_with_parents(linked.places.user_folder.c_str(), 0755);
  std::string checkout = linked.dir.file("checkout");
  g_mkdir_with_parents(checkout.c_str(), 0755);
  ASSERT_EQ(symlink(checkout.c_str(), linked.userCopy().c_str()), 0);
  EXPECT_EQ(RunSetup(linked, nullptr), GnomeExtensionState::kPresent);
  EXPECT_FALSE(Exists(checkout + "/metadata.json"));
}

TEST(GnomeExtensionSetupTest, ASystemCopyIsNotDuplicated) {
  StandInShell shell;
  shell.answer("GetExtensionInfo", "(@a{sv} {},)");
  Places places;
  std::string system_copy = places.places.system_folders[0] + "/orvane@tarnwick.com";
  g_mkdir_with_parents(system_copy.c_str(), 0755);
  EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kPresent);
  EXPECT_FALSE(Exists(places.userCopy()));
}

TEST(GnomeExtensionSetupTest, ALinkOrAFileInTheWayIsOneLogLineAndNothingIsWritten) {
  StandInShell shell;
  shell.answer("GetExtensionInfo", "(@a{sv} {},)");
  {
    LogCapture log;
    Places places;
    std::string elsewhere = places.dir.file("elsewhere");
    g_mkdir_with_parents(elsewhere.c_str(), 0755);
    g_mkdir_with_parents(ParentFolder(places.places.user_folder).c_str(), 0755);
    ASSERT_EQ(symlink(elsewhere.c_str(), places.places.user_folder.c_str()), 0);
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNotInstalled);
    EXPECT_FALSE(Exists(elsewhere + "/orvane@tarnwick.com"));
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "gnome: the extension could not be installed into " +
                                  places.places.user_folder + ": the folder is a symbolic link"}));
  }
  {
    LogCapture log;
    Places places;
    g_mkdir_with_parents(ParentFolder(places.places.user_folder).c_str(), 0755);
    TempDir::WriteFile(places.places.user_folder, "a file");
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNotInstalled);
    EXPECT_EQ(TempDir::Read(places.places.user_folder), "a file");
    EXPECT_TRUE(Contains(log.messages(), "something that is not a folder is in its place"));
  }
  {
    LogCapture log;
    Places places;
    g_mkdir_with_parents(places.places.user_folder.c_str(), 0755);
    TempDir::WriteFile(places.userCopy(), "a file");
    std::string note;
    EXPECT_EQ(RunSetup(places, nullptr, &note), GnomeExtensionState::kNotInstalled);
    EXPECT_EQ(TempDir::Read(places.userCopy()), "a file");
    EXPECT_TRUE(Contains(log.messages(), "is not a folder; the extension was not installed"));
  }
  {
    // A home that cannot be written (a file where a folder must be made).
    LogCapture log;
    Places places;
    TempDir::WriteFile(places.dir.file("home"), "not a folder");
    places.places.user_folder = places.dir.file("home/.local/share/gnome-shell/extensions");
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNotInstalled);
    EXPECT_TRUE(Contains(log.messages(), "the folder cannot be created"));
  }
}

TEST(GnomeExtensionSetupTest, WithoutAReadyCopyTheLogSaysWhere) {
  LogCapture log;
  StandInShell shell;
  shell.answer("GetExtensionInfo", "(@a{sv} {},)");
  Places places;
  places.places.ready_copy = places.dir.file("nowhere/orvane@tarnwick.com");
  EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNotInstalled);
  EXPECT_TRUE(Contains(log.messages(), "no ready copy of it at " + places.places.ready_copy));
  EXPECT_FALSE(Exists(places.userCopy()));
}

TEST(GnomeExtensionSetupTest, AFailedExtensionAndHostileAnswersAreLogged) {
  StandInShell shell;
  {
    LogCapture log;
    shell.answer("GetExtensionInfo", "({'state': <3.0>, 'error': <'SyntaxError: oops'>},)");
    Places places;
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kFailed);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "gnome: GNOME Shell reports the extension orvane@tarnwick.com "
                                  "as failed: SyntaxError: oops"}));
  }
  {
    LogCapture log;
    shell.answer("GetExtensionInfo", "('enabled',)");
    Places places;
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNoShell);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].rfind("gnome: the extension could not be checked: ", 0), 0u);
    EXPECT_FALSE(Exists(places.userCopy()));
  }
  {
    // A state of the wrong type is no state: the shell does not know it.
    shell.answer("GetExtensionInfo", "({'state': <'1'>},)");
    Places places;
    EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kInstalled);
  }
}

TEST(GnomeExtensionSetupTest, WithoutGnomeShellNothingHappens) {
  LogCapture log;
  Places places;
  EXPECT_EQ(RunSetup(places, nullptr), GnomeExtensionState::kNoShell);
  EXPECT_FALSE(Exists(places.userCopy()));
  EXPECT_EQ(log.messages().size(), 1u);
}

} // namespace
} // namespace orvane
