#include "app/MainMenu.h"

#include "base/GObjectPtr.h"

#include <webkit2/webkit2.h>

namespace orvane {

namespace {

// Edit commands go to whatever has the keyboard in the active window: a web
// view's page, or a text field of a dialog.
void RunEditCommand(GtkApplication* application, const char* command) {
  GtkWindow* window = gtk_application_get_active_window(application);
  GtkWidget* focus = window ? gtk_window_get_focus(window) : nullptr;
  if (!focus)
    return;
  if (WEBKIT_IS_WEB_VIEW(focus)) {
    webkit_web_view_execute_editing_command(WEBKIT_WEB_VIEW(focus), command);
    return;
  }
  if (!GTK_IS_EDITABLE(focus))
    return;
  GtkEditable* editable = GTK_EDITABLE(focus);
  std::string name = command;
  if (name == WEBKIT_EDITING_COMMAND_CUT)
    gtk_editable_cut_clipboard(editable);
  else if (name == WEBKIT_EDITING_COMMAND_COPY)
    gtk_editable_copy_clipboard(editable);
  else if (name == WEBKIT_EDITING_COMMAND_PASTE)
    gtk_editable_paste_clipboard(editable);
  else if (name == WEBKIT_EDITING_COMMAND_SELECT_ALL)
    gtk_editable_select_region(editable, 0, -1);
}

struct ActionEntry {
  const char* name;
  void (*run)(GtkApplication*, MenuCommands&);
  const char* accelerator;
};

const ActionEntry kActions[] = {
    {"about", [](GtkApplication*, MenuCommands& c) { c.showAbout(); }, nullptr},
    {"check-accessibility", [](GtkApplication*, MenuCommands& c) { c.checkAccessibility(); },
     nullptr},
    {"hide", [](GtkApplication*, MenuCommands& c) { c.hideApplication(); }, "<Control>h"},
    {"quit", [](GtkApplication* a, MenuCommands&) { g_application_quit(G_APPLICATION(a)); },
     "<Control>q"},
    {"undo",
     [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_UNDO); },
     "<Control>z"},
    {"redo",
     [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_REDO); },
     "<Shift><Control>z"},
    {"cut", [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_CUT); },
     "<Control>x"},
    {"copy",
     [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_COPY); },
     "<Control>c"},
    {"paste",
     [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_PASTE); },
     "<Control>v"},
    {"select-all",
     [](GtkApplication* a, MenuCommands&) { RunEditCommand(a, WEBKIT_EDITING_COMMAND_SELECT_ALL); },
     "<Control>a"},
    {"show-library-folder", [](GtkApplication*, MenuCommands& c) { c.showLibraryFolder(); },
     nullptr},
    {"choose-library-folder", [](GtkApplication*, MenuCommands& c) { c.chooseLibraryFolder(); },
     nullptr},
    {"show-library", [](GtkApplication*, MenuCommands& c) { c.showLibraryWindow(); }, "<Control>l"},
    // While the global hotkeys hold their grabs, the X server hands Alt+B
    // and Alt+V to the grab, never to a window, so these accelerators only
    // act when another program holds the chord and never double a hotkey.
    {"quick-panel", [](GtkApplication*, MenuCommands& c) { c.hotkeySummon(); }, "<Alt>b"},
    {"talk", [](GtkApplication*, MenuCommands& c) { c.hotkeyTalk(); }, "<Alt>v"},
    {"minimize",
     [](GtkApplication* a, MenuCommands&) {
       if (GtkWindow* w = gtk_application_get_active_window(a))
         gtk_window_iconify(w);
     },
     "<Control>m"},
    {"zoom",
     [](GtkApplication* a, MenuCommands&) {
       GtkWindow* w = gtk_application_get_active_window(a);
       if (!w)
         return;
       if (gtk_window_is_maximized(w))
         gtk_window_unmaximize(w);
       else
         gtk_window_maximize(w);
     },
     nullptr},
};

struct ActionContext {
  GtkApplication* application;
  MenuCommands* commands;
  const ActionEntry* entry;
};

void AddItem(GMenu* menu, const char* label, const char* action) {
  g_menu_append(menu, label, action);
}

GMenu* Section(GMenu* parent) {
  GMenu* section = g_menu_new();
  g_menu_append_section(parent, nullptr, G_MENU_MODEL(section));
  g_object_unref(section);
  return section;
}

} // namespace

void InstallMainMenu(GtkApplication* application, MenuCommands& commands) {
  for (const ActionEntry& entry : kActions) {
    GSimpleAction* action = g_simple_action_new(entry.name, nullptr);
    auto* context = new ActionContext{application, &commands, &entry};
    g_signal_connect_data(
        action, "activate", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
          auto* c = static_cast<ActionContext*>(data);
          c->entry->run(c->application, *c->commands);
        }),
        context, [](gpointer data, GClosure*) { delete static_cast<ActionContext*>(data); },
        GConnectFlags(0));
    g_action_map_add_action(G_ACTION_MAP(application), G_ACTION(action));
    g_object_unref(action);
    if (entry.accelerator) {
      std::string detailed = std::string("app.") + entry.name;
      const char* accels[] = {entry.accelerator, nullptr};
      gtk_application_set_accels_for_action(application, detailed.c_str(), accels);
    }
  }

  auto bar = GObjectPtr<GMenu>::adopt(g_menu_new());

  GMenu* app_menu = g_menu_new();
  GMenu* about = Section(app_menu);
  AddItem(about, "About Orvane", "app.about");
  AddItem(Section(app_menu), "Check Accessibility Permission…", "app.check-accessibility");
  GMenu* quit = Section(app_menu);
  AddItem(quit, "Hide", "app.hide");
  AddItem(quit, "Quit", "app.quit");
  g_menu_append_submenu(bar.get(), "Orvane", G_MENU_MODEL(app_menu));
  g_object_unref(app_menu);

  GMenu* edit = g_menu_new();
  GMenu* history = Section(edit);
  AddItem(history, "Undo", "app.undo");
  AddItem(history, "Redo", "app.redo");
  GMenu* clipboard = Section(edit);
  AddItem(clipboard, "Cut", "app.cut");
  AddItem(clipboard, "Copy", "app.copy");
  AddItem(clipboard, "Paste", "app.paste");
  AddItem(clipboard, "Select All", "app.select-all");
  g_menu_append_submenu(bar.get(), "Edit", G_MENU_MODEL(edit));
  g_object_unref(edit);

  GMenu* file = g_menu_new();
  AddItem(file, "Show Library Folder in Finder", "app.show-library-folder");
  AddItem(file, "Choose Library Folder…", "app.choose-library-folder");
  g_menu_append_submenu(bar.get(), "File", G_MENU_MODEL(file));
  g_object_unref(file);

  GMenu* window = g_menu_new();
  GMenu* windows = Section(window);
  AddItem(windows, "Library", "app.show-library");
  AddItem(windows, "Quick Panel", "app.quick-panel");
  AddItem(windows, "Talk to the Library", "app.talk");
  GMenu* arrange = Section(window);
  AddItem(arrange, "Minimize", "app.minimize");
  AddItem(arrange, "Zoom", "app.zoom");
  g_menu_append_submenu(bar.get(), "Window", G_MENU_MODEL(window));
  g_object_unref(window);

  gtk_application_set_menubar(application, G_MENU_MODEL(bar.get()));
}

} // namespace orvane
