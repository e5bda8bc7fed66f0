#include "desktop/kwin/KWinSelections.h"

#include "base/MainThread.h"
#include "base/SparLog.h"
#include "desktop/kwin/FakeInputKeys.h"

#include <glib.h>

namespace orvane {

KWinSelections::KWinSelections(KWinSelectionLimits limits)
    : limits_(limits), data_control_(limits.data_control) {}

KWinSelections::~KWinSelections() = default;

std::optional<int> KWinSelections::primaryOwnerPid() {
  // data-control offers carry MIME types only; the owning client, let alone
  // its process, is not told.
  return std::nullopt;
}

std::optional<std::string> KWinSelections::primaryText() {
  return data_control_.readText(SelectionKind::kPrimary);
}

void KWinSelections::warmUp() {
  data_control_.startConnecting();
}

uint64_t KWinSelections::clipboardChangeCount() {
  data_control_.connect();
  return data_control_.clipboardChanges();
}

ClipboardContents KWinSelections::saveClipboard() {
  SavedSelection saved = data_control_.saveClipboard();
  if (saved.cut_short)
    SparLog("clipboard: its owner stopped answering, %lu of %lu MIME types saved",
            saved.types.size(), saved.offered);
  return std::move(saved.types);
}

std::optional<std::string> KWinSelections::clipboardText() {
  if (data_control_.ownsClipboard()) {
    ClipboardContents served = data_control_.servedClipboard();
    std::vector<std::string> types;
    for (const SelectionTarget& item : served)
      types.push_back(item.target);
    for (const std::string& type : TextMimeTypesOf(types)) {
      for (const SelectionTarget& item : served) {
        if (item.target == type)
          return TextFromMimeBytes(type, item.bytes);
      }
    }
    return std::nullopt;
  }
  return data_control_.readText(SelectionKind::kClipboard);
}

void KWinSelections::restoreClipboard(const ClipboardContents& contents) {
  if (!data_control_.setClipboard(contents))
    SparLog("clipboard: could not take the clipboard to restore it");
}

bool KWinSelections::sendCopyChord(CopyChord chord) {
  if (!keys_)
    keys_ = std::make_unique<FakeInputKeys>(limits_.key_wait);
  std::vector<uint32_t> keys{kEvdevLeftCtrl};
  if (chord == CopyChord::kControlShiftC)
    keys.push_back(kEvdevLeftShift);
  keys.push_back(kEvdevC);
  return keys_->send(ChordEvents(keys, {kEvdevLeftAlt, kEvdevRightAlt}));
}

void KWinSelections::pause(std::chrono::milliseconds duration) {
  RunMainContextFor(duration);
}

void KWinSelections::keepClipboardAfterExit() {
  if (data_control_.ownsClipboard())
    SparLog("clipboard: the restored clipboard is served until this process ends; after that "
            "only a clipboard manager keeps it");
}

} // namespace orvane
