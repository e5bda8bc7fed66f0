// The composition root: owns everything that lives for the whole run (the
// quick panel, the library window, the store, the bridge state) and wires
// the subsystems together. It is every web view's delegate, the handler of
// the pages' messages, the observer of the bus notifications and the target
// of the menu commands.
#pragma once

#include "agent/AgentTurns.h"
#include "agent/ClaudeDiscovery.h"
#include "agent/SparringWindow.h"
#include "app/MainMenu.h"
#include "base/LogThrottle.h"
#include "bridge/BridgeHost.h"
#include "bridge/EventDelivery.h"
#include "bridge/MessageDispatcher.h"
#include "capture/Capture.h"
#include "capture/PanelWindow.h"
#include "capture/QuickPanel.h"
#include "capture/Quotes.h"
#include "capture/Summon.h"
#include "desktop/Accessibility.h"
#include "desktop/Activation.h"
#include "desktop/DesktopBackend.h"
#include "desktop/FrontWindows.h"
#include "desktop/Hotkeys.h"
#include "desktop/Launcher.h"
#include "desktop/MessageBus.h"
#include "desktop/Notifications.h"
#include "desktop/Scheduler.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"
#include "desktop/Windows.h"
#include "desktop/Workspace.h"
#include "library/DockDrops.h"
#include "library/FileDrag.h"
#include "library/PdfActions.h"
#include "library/PdfStore.h"
#include "library/WindowDrops.h"
#include "placement/PaperSplits.h"
#include "placement/PlacementRequests.h"
#include "update/SelfUpdate.h"
#include "web/LibraryWindow.h"
#include "web/WebViewFactory.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// The desktop seams the delegate works through.
struct DesktopSeams {
  std::unique_ptr<Screens> screens;
  std::unique_ptr<MessageBus> bus;
  std::unique_ptr<Workspace> workspace;
  std::unique_ptr<Scheduler> scheduler;
  std::unique_ptr<Accessibility> accessibility;
  std::unique_ptr<Hotkeys> hotkeys;
  std::unique_ptr<FrontWindows> front_windows;
  std::unique_ptr<Selections> selections;
  std::unique_ptr<Notifications> notifications;
  std::unique_ptr<Activation> activation;
  std::unique_ptr<Windows> windows;
  std::unique_ptr<Launcher> launcher;
  std::unique_ptr<OwnWindows> own_windows;
  // "X11 (openbox)", "KDE Plasma (Wayland)" …: the launch's "desktop:" line.
  std::string desktop_description;
  // Why the "Desktop" setting was not followed, when it was not.
  std::string desktop_setting_note;
  // The desktop gives Orvane no means to reach other applications: the
  // launch tells the user once, since no hotkey will.
  bool desktop_lacks_means = false;
  // Builds the capture over these seams once the store, which it asks for
  // the library folder, exists.
  using LibraryFolderQuery = std::function<std::optional<std::string>()>;
  std::function<std::unique_ptr<Capture>(LibraryFolderQuery library_folder)> make_capture;
};
// The seams of the chosen desktop backend and of the session.
DesktopSeams RealDesktopSeams(DesktopBackend& backend, const std::string& setting_note);

class AppDelegate final : public BridgeHost,
                          public PdfActionHost,
                          public WebViewDelegate,
                          public MenuCommands {
public:
  AppDelegate(GtkApplication* application, DesktopSeams seams);
  ~AppDelegate() override;

  // The launch sequence, once, on the main loop.
  void applicationDidFinishLaunching();
  // The program was started again while it runs.
  void applicationShouldHandleReopen();
  // Files given to the program (on its command line or a second start's).
  void openFiles(const std::vector<std::string>& paths);

  // Bus notifications.
  void quoteArrived(const std::string& object);
  void sparRequested(const std::string& object);
  void tileRequested(const std::string& object);
  void placeRequested(const std::string& object);

  // MenuCommands
  void checkAccessibility() override;
  void showLibraryFolder() override;
  void chooseLibraryFolder() override;
  void showLibraryWindow() override;
  void hotkeySummon() override;
  void hotkeyTalk() override;
  // The other two hotkeys (⌥C, ⌥Q) and the "send-quote-to-friend" action.
  void hotkeyQuote();
  void hotkeyFriendQuote();
  void sendQuoteToFriend();
  void hideApplication() override;
  void showAbout() override;

  // BridgeHost
  bool handlePdfAction(const std::optional<std::string>& action, const nlohmann::json& body,
                       const PageRef& from) override;
  void openSparWindowFor(const std::string& paper_id) override;
  void closeSparWindow() override;
  PageRef quickPanelPage() const override { return web_; }
  void hideQuickPanel() override;
  void beginFileDrag(const std::string& path, const PageRef& page) override;
  void openPreviewSplitFor(const std::string& path) override;
  // The ask split, for the tile request.
  void openAskSplitFor(const std::string& path);
  bool storeHasAccount() const override;
  void setStoreAccount(const std::string& account) override;
  void rescanStore() override;
  void ensureLocal(const std::string& paper_id, const std::optional<std::string>& url,
                   const std::optional<std::string>& etag, LocalCopyCompletion completion) override;
  std::string claudePath() const override;
  std::string sparFolder() override;

  // PdfActionHost
  void helloFrom(const PageRef& from, const std::string& account) override;
  void sendEvent(const Event& event) override { events_.sendEvent(event); }
  void openInPreview(const std::string& path) override;
  void revealInFileManager(const std::string& path) override;
  void runClaude(const nlohmann::json& body) override;
  void stopClaude(const nlohmann::json& body) override;
  void updateFrom(const std::string& address) override;

  // WebViewDelegate
  void didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                               WebKitWebView* from, const MessageSender& sender) override;
  bool decidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                    WebKitPolicyDecisionType type) override;
  GtkWidget* createWebView(WebKitWebView* view, WebKitNavigationAction* action) override;
  bool runFileChooser(WebKitWebView* view, WebKitFileChooserRequest* request) override;
  void webViewDidClose(WebKitWebView* view) override;
  void didCommitNavigation(WebKitWebView* view) override;
  void didFinishNavigation(WebKitWebView* view) override;

  EventDelivery& events() { return events_; }

private:
  PageRef pageFor(WebKitWebView* view) const;
  void subscribeToNotifications();
  void registerHotkeys();
  void addServicesAction();
  std::optional<std::string> libraryFolderWithAccount() const;
  void logDroppedAddress(WebKitWebView* view, bool user_gesture, std::string_view format,
                         const std::string& address);

  GtkApplication* application_;
  DesktopSeams seams_;

  // Created by init, as containers.
  EventDelivery events_;
  DockDrops dock_drops_;
  FileDrag file_drag_;

  MessageDispatcher dispatcher_;
  WebViewFactory factory_;

  std::unique_ptr<PdfStore> store_;
  std::unique_ptr<PdfActions> pdf_actions_;
  std::unique_ptr<ClaudeDiscovery> discovery_;
  std::unique_ptr<AgentTurns> agent_turns_;

  std::shared_ptr<WebPage> lib_web_;
  std::unique_ptr<LibraryWindow> lib_window_;
  std::unique_ptr<WindowDrops> lib_drops_;
  std::shared_ptr<WebPage> web_;
  std::unique_ptr<PanelWindow> window_;
  std::unique_ptr<QuickPanel> quick_panel_;
  std::unique_ptr<SparringWindow> spar_;
  std::unique_ptr<Capture> capture_;
  std::unique_ptr<SummonPanel> summon_panel_;
  std::unique_ptr<Summon> summon_;
  std::unique_ptr<QuoteChat> quote_chat_;
  std::unique_ptr<Quotes> quotes_;
  std::unique_ptr<SplitChat> split_chat_;
  std::unique_ptr<PaperSplits> splits_;
  std::unique_ptr<PlacementRequests> placement_;
  std::unique_ptr<SelfUpdate> self_update_;
  LogThrottle dropped_addresses_;
  bool desktop_warm_up_scheduled_ = false;
};

} // namespace orvane
