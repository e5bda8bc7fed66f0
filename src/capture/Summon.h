// The ⌥B summon of the quick panel: the toggle, the capture while the other
// application is still in front (with the development server's check
// running meanwhile), the page load that starts as soon as the capture is
// done, and the pending summon that the first of three paths
// shows (the activation's "activate", a refused activation, a fallback
// timer).
#pragma once

#include "capture/Capture.h"
#include "desktop/Activation.h"
#include "desktop/Scheduler.h"
#include "desktop/Screens.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orvane {

inline constexpr double kSummonFallbackDelay = 0.7;

// The quick panel as the summon drives it.
class SummonPanel {
public:
  virtual ~SummonPanel() = default;
  // The panel is visible and has the keyboard (so the program is active).
  virtual bool isKeyInActiveApplication() const = 0;
  virtual void hide() = 0;
  // The screen of the program's window that has the keyboard, else the
  // primary screen; nothing without screens.
  virtual std::optional<Screen> keyWindowScreen() const = 0;
  // Starts, in the background, what loading the page must wait for (the
  // development server's check), so that it runs during the capture.
  virtual void prepareLoad() = 0;
  // Starts loading the panel's page for the selection; the panel stays as
  // it is until presented.
  virtual void loadPage(const std::optional<std::string>& selection) = 0;
  // Shows the panel, with the page last loaded, on the screen with the time
  // of the key press that asked for it.
  virtual void present(const std::optional<Screen>& screen, uint32_t timestamp) = 0;
};

class Summon {
public:
  Summon(Capture& capture, const Screens& screens, Scheduler& scheduler, Activation& activation,
         SummonPanel& panel, double fallback_delay = kSummonFallbackDelay);

  // ⌥B (or the menu item) with the X server time of the key press.
  void hotkeySummon(uint32_t timestamp);

  // A summon whose page is loading and whose panel is yet to be shown.
  void setPendingSummon(std::optional<Screen> screen, uint32_t timestamp);
  bool hasPendingSummon() const { return pending_summon_; }
  // Shows the pending summon once; nothing when none is pending.
  void takePendingSummon();
  // The program's "activate" (its reopen event). While the summon's own
  // activation request is unanswered, the activate is that request's: it
  // shows the pending summon, unless the fallback already has, and nothing
  // else. True when the activate was the summon's (own or with a summon
  // pending); false when it is a reopen for the caller to handle.
  bool handleReopen();

private:
  Capture& capture_;
  const Screens& screens_;
  Scheduler& scheduler_;
  Activation& activation_;
  SummonPanel& panel_;
  double fallback_delay_;

  std::optional<Screen> pending_screen_;
  uint32_t pending_timestamp_ = 0;
  bool pending_summon_ = false;
  // Activation requests sent and not yet answered.
  unsigned activations_in_flight_ = 0;
};

} // namespace orvane
