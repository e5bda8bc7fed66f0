// The main menu: the application, Edit, File and Window menus, with Ctrl
// where a Mac has Command and Alt for the two Option items.
#pragma once

#include <gtk/gtk.h>

namespace orvane {

// The delegate's menu commands.
class MenuCommands {
public:
  virtual ~MenuCommands() = default;
  virtual void checkAccessibility() = 0;
  virtual void showLibraryFolder() = 0;
  virtual void chooseLibraryFolder() = 0;
  virtual void showLibraryWindow() = 0;
  virtual void hotkeySummon() = 0;
  virtual void hotkeyTalk() = 0;
  virtual void hideApplication() = 0;
  virtual void showAbout() = 0;
};

// Registers the application actions (app.check-accessibility, ...), their
// accelerators and the menu bar.
void InstallMainMenu(GtkApplication* application, MenuCommands& commands);


} // namespace orvane
