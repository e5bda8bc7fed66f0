// WebKitGTK 2.42 and later draw through DMA-BUF buffers, which NVIDIA's
// proprietary driver does not show: every web view stays blank. When that
// driver is loaded, the renderer is turned off before the first web view is
// made, unless the user has chosen a renderer setting of their own.
#pragma once

#include <string>

namespace orvane {

// Present while NVIDIA's proprietary kernel driver is loaded.
inline constexpr char kNvidiaDriverFile[] = "/proc/driver/nvidia/version";

// Sets WEBKIT_DISABLE_DMABUF_RENDERER=1 when driver_file exists and neither
// WEBKIT_DISABLE_DMABUF_RENDERER nor WEBKIT_DISABLE_COMPOSITING_MODE is set
// (a variable the user set wins, whatever its value). True when it did.
// Must run before the first web view; it changes the process environment.
bool TurnOffDmabufRendererForNvidia(const std::string& driver_file = kNvidiaDriverFile);

} // namespace orvane
