#include "app/AppDelegate.h"

#include "app/RunningRelease.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Settings.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "capture/DesktopCapture.h"
#include "capture/HandoffFolder.h"
#include "capture/HotkeyTable.h"
#include "capture/ScreenContainingPoint.h"
#include "capture/SelectionCapture.h"
#include "capture/Talk.h"
#include "desktop/session/DBusActivation.h"
#include "desktop/session/DBusMessageBus.h"
#include "desktop/session/DBusNotifications.h"
#include "desktop/session/GLibScheduler.h"
#include "desktop/session/GioLauncher.h"
#include "desktop/session/GioWorkspace.h"
#include "library/LibraryFolder.h"
#include "library/PdfFiles.h"
#include "web/DevServer.h"
#include "web/NavigationPolicy.h"
#include "web/NvidiaRenderer.h"

#include <algorithm>
#include <glib/gstdio.h>
#include <unistd.h>
#include <utility>

namespace orvane {

namespace {
constexpr char kQuoteNotification[] = "com.tarnwick.orvane.quote";
constexpr char kSparNotification[] = "com.tarnwick.orvane.spar";
constexpr char kTileNotification[] = "com.tarnwick.orvane.tile";
constexpr char kPlaceNotification[] = "com.tarnwick.orvane.place";
constexpr char kFocusSearchScript[] = "document.getElementById('quick-search')?.focus();";
// Addresses from pages are cut to this many characters in log lines.
constexpr size_t kLoggedAddressLength = 200;
// How long after the first page has loaded the desktop's set-up begins.
constexpr double kDesktopWarmUpDelaySeconds = 0.5;

void ShowMessageDialog(GtkWindow* parent, const std::string& message, const std::string& detail) {
  GtkWidget* dialog =
      gtk_message_dialog_new(parent, GTK_DIALOG_DESTROY_WITH_PARENT, GTK_MESSAGE_INFO,
                             GTK_BUTTONS_OK, "%s", message.c_str());
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", detail.c_str());
  gtk_window_set_title(GTK_WINDOW(dialog), message.c_str());
  gtk_window_set_modal(GTK_WINDOW(dialog), TRUE);
  // Modal to the user, not to the main loop: the program keeps answering
  // its pages and the bus while the dialog is up.
  g_signal_connect(dialog, "response", G_CALLBACK(gtk_widget_destroy), nullptr);
  gtk_widget_show(dialog);
}

// The application's own object path on the session bus, from its id.
std::string ApplicationObjectPath() {
  std::string path = "/";
  path.append(kApplicationId);
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

// The quick panel as the ⌥B summon drives it.
class PanelSummonTarget final : public SummonPanel {
public:
  PanelSummonTarget(GtkApplication* application, PanelWindow& window, QuickPanel& panel,
                    const Screens& screens)
      : application_(application), window_(window), panel_(panel), screens_(screens) {}

  bool isKeyInActiveApplication() const override {
    return window_.isVisible() && window_.isKeyWindow();
  }
  void hide() override { panel_.hidePanel(); }
  void prepareLoad() override { panel_.startServerCheck(); }
  std::optional<Screen> keyWindowScreen() const override {
    std::optional<Screen> screen;
    GtkWindow* active = gtk_application_get_active_window(application_);
    std::vector<Screen> screens = screens_.screens();
    if (active)
      screen = ScreenOfFrame(screens, window_.ownWindows().frame(active));
    if (!screen && !screens.empty())
      screen = screens.front();
    return screen;
  }
  void loadPage(const std::optional<std::string>& selection) override {
    panel_.loadPanelPage(selection);
  }
  void present(const std::optional<Screen>& screen, uint32_t timestamp) override {
    panel_.presentPanel(screen, timestamp);
  }

private:
  GtkApplication* application_;
  PanelWindow& window_;
  QuickPanel& panel_;
  const Screens& screens_;
};

// The sparring window as quotes reach it.
class SparringChat final : public QuoteChat {
public:
  explicit SparringChat(SparringWindow& spar) : spar_(spar) {}
  bool exists() const override { return spar_.sparWeb() != nullptr; }
  bool isVisible() const override { return spar_.isVisible(); }
  void bringBack() override {
    if (GtkWindow* window = spar_.gtkWindow())
      gtk_widget_show(GTK_WIDGET(window));
  }
  void evaluateScript(const std::string& script) override {
    if (spar_.sparWeb())
      spar_.sparWeb()->evaluateScript(script);
  }

private:
  SparringWindow& spar_;
};

// The sparring window as the viewer split moves it. Nothing happens to a
// window that was never made.
class SparringSplitChat final : public SplitChat {
public:
  SparringSplitChat(SparringWindow& spar, const Screens& screens, OwnWindows& own_windows)
      : spar_(spar), screens_(screens), own_windows_(own_windows) {}
  bool isFullScreen() const override { return spar_.isFullScreen(); }
  void leaveFullScreen() override {
    if (GtkWindow* window = spar_.gtkWindow()) {
      gtk_window_unfullscreen(window);
      left_full_screen_ = true;
    }
  }
  std::optional<Screen> screen() const override {
    GtkWindow* window = spar_.gtkWindow();
    if (!window)
      return std::nullopt;
    return ScreenOfFrame(screens_.screens(), own_windows_.frame(window));
  }
  void makeKeyAndOrderFront() override {
    if (GtkWindow* window = spar_.gtkWindow())
      gtk_window_present(window);
  }
  void setFrame(const Rect& frame) override {
    GtkWindow* window = spar_.gtkWindow();
    if (!window)
      return;
    SparringWindow& spar = spar_;
    own_windows_.whenOnScreen(window, [&spar, frame] { spar.placeFrame(frame); });
    // The window manager puts a window that leaves full screen back on its
    // earlier frame once it has left; the half is set again after that.
    if (std::exchange(left_full_screen_, false))
      WhenFullScreenLeft(window, [&spar, frame] { spar.placeFrame(frame); });
  }
  void orderFrontRegardless() override {
    GtkWindow* window = spar_.gtkWindow();
    if (!window)
      return;
    gtk_widget_show(GTK_WIDGET(window));
    if (GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window)))
      gdk_window_raise(gdk);
  }
  Rect frame() const override {
    GtkWindow* window = spar_.gtkWindow();
    return window ? own_windows_.frame(window) : Rect{};
  }
  void whenFrameApplied(const Rect& frame, std::function<void()> applied) override {
    // The caller logs after its own short wait when the window manager is
    // slower; the configure handler is dropped a while after that.
    if (GtkWindow* window = spar_.gtkWindow())
      own_windows_.whenFrameIs(window, frame, 2000, std::move(applied));
  }

private:
  // Runs the task once, on the first state change that finds the window out
  // of full screen.
  static void WhenFullScreenLeft(GtkWindow* window, std::function<void()> task) {
    auto* pending = new std::function<void()>(std::move(task));
    g_signal_connect_data(
        window, "window-state-event",
        G_CALLBACK(+[](GtkWidget* widget, GdkEventWindowState* event, gpointer data) -> gboolean {
          if (!(event->new_window_state & GDK_WINDOW_STATE_FULLSCREEN)) {
            (*static_cast<std::function<void()>*>(data))();
            g_signal_handlers_disconnect_by_data(widget, data);
          }
          return FALSE;
        }),
        pending,
        +[](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); },
        GConnectFlags(0));
  }

  SparringWindow& spar_;
  const Screens& screens_;
  OwnWindows& own_windows_;
  bool left_full_screen_ = false;
};
} // namespace

DesktopSeams RealDesktopSeams(DesktopBackend& backend, const std::string& setting_note) {
  DesktopSeams seams;
  seams.screens = backend.makeScreens();
  seams.bus = std::make_unique<DBusMessageBus>();
  seams.workspace = std::make_unique<GioWorkspace>();
  seams.scheduler = std::make_unique<GLibScheduler>();
  seams.accessibility = backend.makeAccessibility();
  seams.hotkeys = backend.makeHotkeys();
  seams.front_windows = backend.makeFrontWindows();
  seams.selections = backend.makeSelections();
  seams.notifications = std::make_unique<DBusNotifications>();
  seams.activation = std::make_unique<DBusActivation>(kApplicationId, ApplicationObjectPath());
  seams.windows = backend.makeWindows();
  seams.own_windows = backend.makeOwnWindows();
  seams.desktop_description = backend.description();
  seams.desktop_setting_note = setting_note;
  seams.desktop_lacks_means = backend.lacksMeans();
  seams.launcher = std::make_unique<GioLauncher>();
  // The seams live on the heap, so these references outlive the move of
  // the struct into the delegate.
  seams.make_capture =
      [front_windows = seams.front_windows.get(), selections = seams.selections.get(),
       screens = seams.screens.get(), accessibility = seams.accessibility.get(),
       notifications = seams.notifications.get()](DesktopSeams::LibraryFolderQuery library_folder) {
        return MakeDesktopCapture(DesktopCaptureSeams{
            *front_windows, *selections, *screens, *accessibility, *notifications,
            [](int pid) { return pid == int(getpid()); }, std::move(library_folder),
            /*handoff_folder=*/""});
      };
  return seams;
}

AppDelegate::AppDelegate(GtkApplication* application, DesktopSeams seams)
    : application_(application), seams_(std::move(seams)),
      dock_drops_([this](const Event& event) { events_.sendEvent(event); }),
      dispatcher_(
          *this, events_, [] { return SiteAddress(); }, [this] { return seams_.scheduler->now(); }),
      factory_(
          *this, [this] { return claudePath(); }, ReleaseOfInstallFolder(RunningInstallFolder())),
      placement_(std::make_unique<PlacementRequests>(
          PlacementSeams{*seams_.windows, *seams_.screens, *seams_.launcher, *seams_.scheduler,
                         [this](const std::string& path) { openAskSplitFor(path); }})) {}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching() {
  // 1. The banner is always the first line of a run, even before what
  // reading the settings for it finds wrong with them.
  Settings::standard().holdBadLineReports();
  std::string site = SiteAddress();
  SparLog("=== Orvane %@ (%@) started, built %s %s, site %@ ===", kVersion, kBuildIdentifier,
          kBuildDate, kBuildTime, site);
  Settings::standard().releaseBadLineReports();

  // 2. Whether other applications' selections and windows are reachable.
  SparLog("accessibility trusted: %@",
          seams_.accessibility->isTrusted()
              ? "YES"
              : "NO — selection capture and Preview tiling are off until granted");

  // 3. Other processes reach the program through four notifications.
  subscribeToNotifications();

  // 4. The main menu.
  InstallMainMenu(application_, *this);

  // 5. The four global hotkeys; a chord another program holds is logged
  // as FAILED and the launch goes on.
  registerHotkeys();
  SparLog("desktop: %@", seams_.desktop_description);
  if (!seams_.desktop_setting_note.empty())
    SparLog("desktop: %@", seams_.desktop_setting_note);
  // No hotkey will ever bring the news on such a desktop: it is told now,
  // once for the account.
  if (seams_.desktop_lacks_means && !seams_.accessibility->isTrusted())
    AskForTrustOnce(*seams_.accessibility, *seams_.notifications, HandoffFolder());

  // 6. The Services entry: an application action, reachable from outside
  // with `gapplication action com.tarnwick.orvane send-quote-to-friend`.
  addServicesAction();

  // 7. The library store; it watches its folder once a page names the account.
  store_ = std::make_unique<PdfStore>(*seams_.scheduler);
  pdf_actions_ = std::make_unique<PdfActions>(*store_, dock_drops_, *this);

  // WebKit reads its renderer setting when the first web view is made, and
  // the environment is changed while no other thread runs yet.
  TurnOffDmabufRendererForNvidia();

  // 8. Look for the agent; the shell look-up runs in the background.
  auto send_event = [this](const Event& event) { events_.sendEvent(event); };
  discovery_ = std::make_unique<ClaudeDiscovery>([this] { return storeHasAccount(); },
                                                 [this] { return sparFolder(); }, send_event);
  agent_turns_ = std::make_unique<AgentTurns>([this] { return discovery_->claudePath(); },
                                              [this] { return sparFolder(); }, send_event);
  agent_turns_->setEventBatching([this] { events_.openBatch(); }, [this] { events_.closeBatch(); });
  agent_turns_->setBackPressure([this] { return events_.isBackedUp(); },
                                [this](std::function<void()> resume) {
                                  events_.whenDrained(std::move(resume));
                                });
  discovery_->findClaude();

  // 9. Edits noticed in the library folder reach the page.
  store_->setOnChange([this](const std::string& id, int64_t size, double mtime) {
    events_.sendEvent({{"type", "pdfChanged"}, {"id", id}, {"mtime", mtime}, {"size", size}});
  });

  // 10. The library window, hidden until shown.
  lib_web_ = factory_.makeWebView();
  lib_window_ = std::make_unique<LibraryWindow>(application_, lib_web_, *seams_.scheduler,
                                                *seams_.own_windows);
  lib_drops_ = std::make_unique<WindowDrops>(
      lib_web_->widget(), [this](const std::vector<std::string>& paths) { openFiles(paths); });

  // 12, begun early. When the library window comes first, its page starts
  // loading now: the web process starts while the rest below is made. No
  // event can reach the program before the launch returns to the main loop,
  // so everything is in place by the time the page says hello.
  bool handoff_waits = g_file_test(HandoffFile("selection.txt").c_str(), G_FILE_TEST_EXISTS);
  if (!handoff_waits)
    showLibraryWindow();

  // 11. The quick panel, hidden until shown. Its page runs in the library
  // page's web process: the first summon finds that process running, and
  // no second one is started, kept in memory or woken while idle.
  web_ = factory_.makeWebView(lib_web_.get());
  window_ = std::make_unique<PanelWindow>(application_, web_->widget(), *seams_.own_windows);
  quick_panel_ = std::make_unique<QuickPanel>(
      *window_, *web_, *lib_window_, *seams_.screens, *seams_.scheduler,
      []() -> PanelServerCheck::Check {
        return [site = SiteAddress(), folder = ProjectDirectory()] { EnsureServer(site, folder); };
      });

  // The sparring window's operations; its window is made on first use.
  spar_ = std::make_unique<SparringWindow>(SparringWindow::Context{
      application_, factory_, events_, *lib_window_, *window_, web_, *seams_.screens,
      *seams_.own_windows, [this] { showLibraryWindow(); }, [this] { quick_panel_->showPanel(); }});

  // What the hotkeys and quotes work through.
  capture_ = seams_.make_capture([this] { return libraryFolderWithAccount(); });
  summon_panel_ =
      std::make_unique<PanelSummonTarget>(application_, *window_, *quick_panel_, *seams_.screens);
  summon_ = std::make_unique<Summon>(*capture_, *seams_.screens, *seams_.scheduler,
                                     *seams_.activation, *summon_panel_);
  quote_chat_ = std::make_unique<SparringChat>(*spar_);
  quotes_ = std::make_unique<Quotes>(QuotesContext{
      *capture_, *seams_.screens, *seams_.bus, events_, *quote_chat_, [this] { return lib_web_; },
      [this] { return libraryFolderWithAccount(); }, [this] { showLibraryWindow(); },
      [this](const std::string& path, int pid, const std::optional<Screen>& screen, Rect& free) {
        return splits_->tilePaperForAsk(path, pid, screen, free);
      },
      [] { return HandoffFile("quote.txt"); }});

  // The viewer split and the ask split.
  split_chat_ = std::make_unique<SparringSplitChat>(*spar_, *seams_.screens, *seams_.own_windows);
  splits_ = std::make_unique<PaperSplits>(
      PaperSplitSeams{*seams_.windows, *seams_.screens, *seams_.launcher, *seams_.scheduler,
                      *split_chat_, [this] { return capture_->attentionPoint(); },
                      [this](const std::string& path, int pid, Point point) {
                        quotes_->askDesktopWith(std::string(), path, pid, point);
                      }});

  // 12. The first window: the panel when a capture hand-off waits (the
  // library window, otherwise, is shown above).
  if (handoff_waits)
    quick_panel_->showPanel();
}

void AppDelegate::subscribeToNotifications() {
  MessageBus& bus = *seams_.bus;
  bus.subscribe(kQuoteNotification, [this](const std::string& o) { quoteArrived(o); });
  bus.subscribe(kSparNotification, [this](const std::string& o) { sparRequested(o); });
  bus.subscribe(kTileNotification, [this](const std::string& o) { tileRequested(o); });
  bus.subscribe(kPlaceNotification, [this](const std::string& o) { placeRequested(o); });
}

void AppDelegate::registerHotkeys() {
  // One handler for the four chords; the launch is over before any key
  // press can reach it, so what the actions use exists by then.
  RegisterHotkeys(*seams_.hotkeys, [this](int id, uint32_t timestamp) {
    if (!summon_ || !quotes_)
      return;
    DispatchHotkey(id, timestamp,
                   HotkeyActions{[this](uint32_t t) { summon_->hotkeySummon(t); },
                                 [this](uint32_t) { hotkeyQuote(); },
                                 [this](uint32_t) { hotkeyFriendQuote(); },
                                 [this](uint32_t) { hotkeyTalk(); }});
  });
}

void AppDelegate::addServicesAction() {
  GSimpleAction* action = g_simple_action_new("send-quote-to-friend", nullptr);
  g_signal_connect(action, "activate", G_CALLBACK(+[](GSimpleAction*, GVariant*, gpointer data) {
                     static_cast<AppDelegate*>(data)->sendQuoteToFriend();
                   }),
                   this);
  g_action_map_add_action(G_ACTION_MAP(application_), G_ACTION(action));
  g_object_unref(action);
}

std::optional<std::string> AppDelegate::libraryFolderWithAccount() const {
  if (!storeHasAccount())
    return std::nullopt;
  return store_->folder();
}

void AppDelegate::applicationShouldHandleReopen() {
  // A summon's own activation (or a pending summon) is the summon's.
  if (summon_ && summon_->handleReopen())
    return;
  if (g_file_test(HandoffFile("selection.txt").c_str(), G_FILE_TEST_EXISTS))
    quick_panel_->showPanel();
  else
    showLibraryWindow();
}

void AppDelegate::openFiles(const std::vector<std::string>& paths) {
  dock_drops_.openFiles(paths);
  showLibraryWindow();
}

void AppDelegate::quoteArrived(const std::string&) {
  quotes_->quoteArrived();
}
void AppDelegate::sparRequested(const std::string& object) {
  spar_->sparRequested(object);
}
void AppDelegate::tileRequested(const std::string& object) {
  placement_->tileRequested(object);
}

void AppDelegate::placeRequested(const std::string& object) {
  placement_->placeRequested(object);
}

void AppDelegate::checkAccessibility() {
  bool trusted = seams_.accessibility->isTrusted();
  SparLog("accessibility check from menu: %@", trusted ? "trusted" : "not trusted (prompted)");
  GtkWindow* parent = gtk_application_get_active_window(application_);
  if (trusted)
    ShowMessageDialog(parent, "Accessibility is granted",
                      "⌥B can read the selection in the app you are using, and the sparring "
                      "window can tile Preview beside itself.");
  else
    ShowMessageDialog(parent, "Orvane cannot reach other applications",
                      seams_.accessibility->reasonNotTrusted());
}

void AppDelegate::showLibraryFolder() {
  seams_.workspace->reveal(LibraryFolder());
}

void AppDelegate::chooseLibraryFolder() {
  GtkWidget* dialog = gtk_file_chooser_dialog_new(
      "Choose Library Folder", gtk_application_get_active_window(application_),
      GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, "_Cancel", GTK_RESPONSE_CANCEL, "Use This Folder",
      GTK_RESPONSE_ACCEPT, nullptr);
  gtk_window_set_modal(GTK_WINDOW(dialog), TRUE);
  gtk_file_chooser_set_create_folders(GTK_FILE_CHOOSER(dialog), TRUE);
  gtk_file_chooser_set_current_folder(GTK_FILE_CHOOSER(dialog), LibraryFolder().c_str());
  GtkWidget* message = gtk_label_new(
      "Choose the folder your library's PDFs live in. To move an existing folder, move it in "
      "Finder, the app follows it.");
  gtk_label_set_line_wrap(GTK_LABEL(message), TRUE);
  gtk_file_chooser_set_extra_widget(GTK_FILE_CHOOSER(dialog), message);
  g_signal_connect(dialog, "response", G_CALLBACK(+[](GtkDialog* d, int response, gpointer data) {
                     auto* self = static_cast<AppDelegate*>(data);
                     GCharPtr chosen(response == GTK_RESPONSE_ACCEPT
                                         ? gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(d))
                                         : nullptr);
                     gtk_widget_destroy(GTK_WIDGET(d));
                     if (!chosen)
                       return; // cancelled: nothing changes, nothing is logged
                     // The old folder's files stay where they are; a failed
                     // bookmark leaves the old folder in force.
                     StoreLibraryFolderBookmark(chosen.str());
                     self->store_->startWatching();
                     SparLog("folder: now %@", chosen.str());
                   }),
                   this);
  gtk_widget_show(dialog);
}

void AppDelegate::showLibraryWindow() {
  lib_window_->showLibraryWindow();
}

void AppDelegate::hotkeySummon() {
  // From the menu: the time of the event that chose the item.
  summon_->hotkeySummon(gtk_get_current_event_time());
}

void AppDelegate::hotkeyQuote() {
  quotes_->hotkeyQuote();
}

void AppDelegate::hotkeyFriendQuote() {
  quotes_->hotkeyFriendQuote();
}

void AppDelegate::sendQuoteToFriend() {
  // The CLIPBOARD is read asynchronously: its owner may be another client.
  gtk_clipboard_request_text(
      gtk_clipboard_get(GDK_SELECTION_CLIPBOARD),
      +[](GtkClipboard*, const gchar* text, gpointer data) {
        auto* self = static_cast<AppDelegate*>(data);
        self->quotes_->sendQuoteToFriend(text ? std::optional<std::string>(text) : std::nullopt);
      },
      this);
}

void AppDelegate::hotkeyTalk() {
  OpenTalkLauncher(ProjectDirectory(), [] { gdk_display_beep(gdk_display_get_default()); });
}

void AppDelegate::hideApplication() {
  for (GList* item = gtk_application_get_windows(application_); item; item = item->next)
    gtk_widget_hide(GTK_WIDGET(item->data));
}

void AppDelegate::showAbout() {
  std::string version = std::string(kVersion) + " (" + kBuildIdentifier + ")";
  gtk_show_about_dialog(gtk_application_get_active_window(application_), "program-name", "Orvane",
                        "version", version.c_str(), "comments",
                        "A native home for your paper library.", "logo-icon-name",
                        "accessories-dictionary", nullptr);
}

bool AppDelegate::handlePdfAction(const std::optional<std::string>& action,
                                  const nlohmann::json& body, const PageRef& from) {
  return pdf_actions_->handlePdfAction(action, body, from);
}

void AppDelegate::openSparWindowFor(const std::string& paper_id) {
  spar_->openSparWindowFor(paper_id);
}
void AppDelegate::closeSparWindow() {
  spar_->closeSparWindow();
}

void AppDelegate::hideQuickPanel() {
  quick_panel_->hidePanel();
}

void AppDelegate::beginFileDrag(const std::string& path, const PageRef& page) {
  auto* web_page = dynamic_cast<WebPage*>(page.get());
  file_drag_.beginFileDrag(path, web_page ? web_page->widget() : web_->widget());
}

// Both splits exist once the launch is over; a request that comes earlier
// changes nothing.
void AppDelegate::openPreviewSplitFor(const std::string& path) {
  if (splits_)
    splits_->openPreviewSplitFor(path);
}
void AppDelegate::openAskSplitFor(const std::string& path) {
  if (splits_)
    splits_->openAskSplitFor(path);
}

bool AppDelegate::storeHasAccount() const {
  return store_ && store_->account().has_value();
}
void AppDelegate::setStoreAccount(const std::string& account) {
  store_->setAccount(account);
}
void AppDelegate::rescanStore() {
  store_->rescan();
}

void AppDelegate::ensureLocal(const std::string& paper_id, const std::optional<std::string>& url,
                              const std::optional<std::string>& etag,
                              LocalCopyCompletion completion) {
  // The dispatcher's way to a local copy (a preview split); the library's
  // own actions refuse such ids before they get here.
  if (!store_->paperIdFits(paper_id)) {
    completion(std::nullopt, std::string("Paper id too long"));
    return;
  }
  store_->ensureLocal(paper_id, url, etag, std::move(completion));
}

void AppDelegate::helloFrom(const PageRef& from, const std::string& account) {
  dispatcher_.helloFrom(from, account);
}

void AppDelegate::openInPreview(const std::string& path) {
  std::string name = FileName(path);
  seams_.workspace->openInViewer(path, [name](ErrorText error) {
    if (error)
      SparLog("open: Preview refused %@: %@", name, *error);
  });
}

void AppDelegate::revealInFileManager(const std::string& path) {
  seams_.workspace->reveal(path);
}

void AppDelegate::runClaude(const nlohmann::json& body) {
  agent_turns_->runClaude(body);
}
void AppDelegate::stopClaude(const nlohmann::json& body) {
  agent_turns_->stopClaude(body);
}

void AppDelegate::updateFrom(const std::string& address) {
  if (!self_update_) {
    // A run from the build tree has no install folder: its bundle is the
    // build folder, which carries no signature, so an update stops there.
    std::string bundle = RunningInstallFolder();
    if (bundle.empty())
      bundle = ParentFolder(RunningExecutable());
    self_update_ = std::make_unique<SelfUpdate>(SelfUpdateSeams{
        bundle, g_get_tmp_dir(), *seams_.scheduler, [this](const Event& e) { sendEvent(e); },
        [this] { g_application_quit(G_APPLICATION(application_)); }, nullptr});
  }
  self_update_->updateFrom(address);
}

std::string AppDelegate::claudePath() const {
  return discovery_ ? discovery_->claudePath().value_or("") : "";
}

std::string AppDelegate::sparFolder() {
  std::string folder = JoinPath(store_->folder(), ".spar");
  g_mkdir_with_parents(folder.c_str(), 0755);
  return folder;
}

PageRef AppDelegate::pageFor(WebKitWebView* view) const {
  for (const auto& page : {lib_web_, web_, spar_ ? spar_->sparWeb() : nullptr})
    if (page && page->view() == view)
      return page;
  return nullptr;
}

void AppDelegate::didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                                          WebKitWebView* from, const MessageSender& sender) {
  dispatcher_.didReceiveScriptMessage(name, body, pageFor(from), sender);
}

bool AppDelegate::decidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                               WebKitPolicyDecisionType type) {
  if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION)
    return false; // new windows go through createWebView, responses load
  WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(
      WEBKIT_NAVIGATION_POLICY_DECISION(decision));
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  std::string target = request ? webkit_uri_request_get_uri(request) : "";
  bool clicked =
      webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
  switch (DecideNavigation(target, clicked, SiteAddress())) {
  case NavigationDecision::Allow:
    webkit_policy_decision_use(decision);
    return true;
  case NavigationDecision::OpenInBrowser:
    seams_.workspace->openInBrowser(target);
    break;
  case NavigationDecision::Drop:
    logDroppedAddress(view, webkit_navigation_action_is_user_gesture(action),
                      "web: link to %@ not opened (only http, https and mailto leave the "
                      "program)",
                      target);
    break;
  }
  webkit_policy_decision_ignore(decision);
  return true;
}

void AppDelegate::logDroppedAddress(WebKitWebView* view, bool user_gesture, std::string_view format,
                                    const std::string& address) {
  // What the user did is always logged; a script can open windows or click
  // links in a loop, so its lines are throttled like refused messages.
  long held_back = 0;
  if (!user_gesture && !dropped_addresses_.admit(view, held_back))
    return;
  if (held_back > 0)
    SparLog("web: %ld more addresses not opened since the last line", held_back);
  SparLog(format, ShortenedText(address, kLoggedAddressLength));
}

GtkWidget* AppDelegate::createWebView(WebKitWebView* view, WebKitNavigationAction* action) {
  // No second web view is ever made: a pop-up goes to the browser, when the
  // user asked for it and its address is one that may leave.
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr;
  if (!uri || !*uri)
    return nullptr;
  switch (DecidePopUp(uri, webkit_navigation_action_is_user_gesture(action))) {
  case PopUpDecision::OpenInBrowser:
    seams_.workspace->openInBrowser(uri);
    break;
  case PopUpDecision::DropNoGesture:
    logDroppedAddress(view, false, "web: pop-up to %@ not opened (no user gesture)", uri);
    break;
  case PopUpDecision::DropScheme:
    logDroppedAddress(view, webkit_navigation_action_is_user_gesture(action),
                      "web: pop-up to %@ not opened (only http, https and mailto leave the "
                      "program)",
                      uri);
    break;
  }
  return nullptr;
}

bool AppDelegate::runFileChooser(WebKitWebView*, WebKitFileChooserRequest* request) {
  GtkWidget* dialog = gtk_file_chooser_dialog_new(
      "Choose Files", window_->gtkWindow(), GTK_FILE_CHOOSER_ACTION_OPEN, "_Cancel",
      GTK_RESPONSE_CANCEL, "_Open", GTK_RESPONSE_ACCEPT, nullptr);
  gtk_window_set_modal(GTK_WINDOW(dialog), TRUE);
  gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(dialog),
                                       webkit_file_chooser_request_get_select_multiple(request));
  if (GtkFileFilter* filter = webkit_file_chooser_request_get_mime_types_filter(request))
    gtk_file_chooser_set_filter(GTK_FILE_CHOOSER(dialog), filter);
  g_object_ref(request);
  g_signal_connect(dialog, "response", G_CALLBACK(+[](GtkDialog* d, int response, gpointer data) {
                     auto* req = static_cast<WebKitFileChooserRequest*>(data);
                     if (response == GTK_RESPONSE_ACCEPT) {
                       GSList* names = gtk_file_chooser_get_filenames(GTK_FILE_CHOOSER(d));
                       std::vector<const gchar*> files;
                       for (GSList* n = names; n; n = n->next)
                         files.push_back(static_cast<const gchar*>(n->data));
                       files.push_back(nullptr);
                       webkit_file_chooser_request_select_files(req, files.data());
                       g_slist_free_full(names, g_free);
                     } else {
                       webkit_file_chooser_request_cancel(req);
                     }
                     g_object_unref(req);
                     gtk_widget_destroy(GTK_WIDGET(d));
                   }),
                   request);
  gtk_widget_show(dialog);
  return true;
}

void AppDelegate::webViewDidClose(WebKitWebView*) {
  window_->orderOut();
}

void AppDelegate::didCommitNavigation(WebKitWebView* view) {
  events_.pageCommitted(pageFor(view));
}

void AppDelegate::didFinishNavigation(WebKitWebView* view) {
  // Once the first page has loaded and had a moment to paint, the desktop's
  // one-time set-up (on KDE Plasma, the data-control connection, which KWin
  // takes most of a second to admit) begins in the background, so that the
  // first summon does not wait for it.
  if (!desktop_warm_up_scheduled_) {
    desktop_warm_up_scheduled_ = true;
    seams_.scheduler->after(kDesktopWarmUpDelaySeconds, [this] { seams_.selections->warmUp(); });
  }
  if (!web_ || view != web_->view())
    return;
  GUri* uri = g_uri_parse(web_->currentAddress().c_str(), G_URI_FLAGS_NONE, nullptr);
  const char* query = uri ? g_uri_get_query(uri) : nullptr;
  bool adding = query && std::string(query).find("add=") != std::string::npos;
  if (uri)
    g_uri_unref(uri);
  if (!adding)
    web_->evaluateScript(kFocusSearchScript);
}

} // namespace orvane
