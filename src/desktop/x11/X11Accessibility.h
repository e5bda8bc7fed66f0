#pragma once

#include "desktop/Accessibility.h"

namespace orvane {

// Trusted when GDK runs on X11 and an EWMH window manager answers the
// _NET_SUPPORTING_WM_CHECK handshake.
class X11Accessibility final : public Accessibility {
public:
  bool isTrusted() const override;
  std::string reasonNotTrusted() const override;
};

} // namespace orvane
