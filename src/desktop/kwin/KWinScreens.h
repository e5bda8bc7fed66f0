// Screens and the pointer as KWin knows them, through KWin's scripting. On
// Wayland a client sees neither the other outputs' places nor the pointer
// outside its own windows; KWin sees both. The primary is KWin's screen 0,
// the same screen the KWin windows' desktop coordinates are counted from.
// Each call is one bounded query (KWinScripting). Main thread only.
#pragma once

#include "desktop/Screens.h"
#include "desktop/kwin/KWinScripting.h"

namespace orvane {

// The screens and pointer of an answer to KWinScreens' query, in desktop
// coordinates; nothing when it is malformed.
struct KWinScreenAnswer {
  std::vector<Screen> screens;
  Point pointer;
};
std::optional<KWinScreenAnswer> ParseKWinScreens(const ScriptAnswer& answer, std::string& why);

class KWinScreens final : public Screens {
public:
  // `scripting` must outlive this object.
  explicit KWinScreens(KWinScripting& scripting) : scripting_(scripting) {}
  // Empty when KWin does not answer.
  std::vector<Screen> screens() const override;
  // {0, 0} when KWin does not answer.
  Point mouseLocation() const override;

private:
  std::optional<KWinScreenAnswer> ask() const;
  KWinScripting& scripting_;
};

} // namespace orvane
