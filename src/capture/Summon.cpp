#include "capture/Summon.h"

#include "base/SparLog.h"
#include "base/Text.h"
#include "capture/ScreenContainingPoint.h"

#include <utility>

namespace orvane {

Summon::Summon(Capture& capture, const Screens& screens, Scheduler& scheduler,
               Activation& activation, SummonPanel& panel, double fallback_delay)
    : capture_(capture), screens_(screens), scheduler_(scheduler), activation_(activation),
      panel_(panel), fallback_delay_(fallback_delay) {}

void Summon::hotkeySummon(uint32_t timestamp) {
  // Pressed again while the panel has the keyboard: the key hides it.
  if (panel_.isKeyInActiveApplication()) {
    panel_.hide();
    return;
  }
  // One key press, one front window: read once for the checks and the
  // capture below.
  FrontWindowHold hold(capture_);
  // The selection's owner is asked for it first: its answer is the longest
  // wait of the summon, and what follows is done while it comes.
  capture_.readSelectionAhead();
  // Every other path loads the page. What the load waits for runs while
  // the front window and the selection are read.
  panel_.prepareLoad();
  std::optional<FrontApplication> front = capture_.frontApplication();
  if (front && front->is_this_program) {
    // Orvane itself is in front: nothing to capture, nothing to activate.
    panel_.loadPage(std::nullopt);
    panel_.present(panel_.keyWindowScreen(), timestamp);
    return;
  }
  // While the other application is still in front: where the user looks,
  // and what they selected there.
  Point point = capture_.attentionPoint();
  std::optional<std::string> text = capture_.captureSelection();
  if (text)
    SparLog("hotkey: %lu chars from %@", Utf16Length(*text),
            front ? front->identifier : std::string("?"));
  // The address is known now: the page loads while the activation goes
  // round, and the panel is shown by whichever path comes first. The screen
  // of the point is looked up once the load is on its way (the screens are
  // read from the X server).
  panel_.loadPage(text);
  setPendingSummon(ScreenContainingPoint(screens_.screens(), point), timestamp);

  // The request's "activate" comes before its answer. Under load it can
  // come after the fallback has shown the panel; it must then not count as
  // a reopen, which would show the library window over the panel.
  ++activations_in_flight_;
  activation_.requestActivation(timestamp, [this](std::optional<std::string> error) {
    if (activations_in_flight_ > 0)
      --activations_in_flight_;
    if (!error)
      return; // the "activate" before this answer took the summon
    SparLog("hotkey: LaunchServices refused (%@) — showing directly", *error);
    takePendingSummon();
  });
  scheduler_.after(fallback_delay_, [this] { takePendingSummon(); });
}

void Summon::setPendingSummon(std::optional<Screen> screen, uint32_t timestamp) {
  pending_screen_ = std::move(screen);
  pending_timestamp_ = timestamp;
  pending_summon_ = true;
}

bool Summon::handleReopen() {
  if (!pending_summon_ && activations_in_flight_ == 0)
    return false;
  takePendingSummon();
  return true;
}

void Summon::takePendingSummon() {
  if (!pending_summon_)
    return;
  // Cleared before showing, so the panel is shown once per summon.
  pending_summon_ = false;
  std::optional<Screen> screen = std::exchange(pending_screen_, std::nullopt);
  panel_.present(screen, std::exchange(pending_timestamp_, 0));
}

} // namespace orvane
