#include "web/NvidiaRenderer.h"

#include "base/SparLog.h"

#include <glib.h>

namespace orvane {

bool TurnOffDmabufRendererForNvidia(const std::string& driver_file) {
  // Set at all, even to "0" or "", is the user's choice.
  if (g_getenv("WEBKIT_DISABLE_DMABUF_RENDERER") || g_getenv("WEBKIT_DISABLE_COMPOSITING_MODE"))
    return false;
  if (driver_file.empty() || !g_file_test(driver_file.c_str(), G_FILE_TEST_IS_REGULAR))
    return false;
  if (!g_setenv("WEBKIT_DISABLE_DMABUF_RENDERER", "1", FALSE))
    return false;
  SparLog("web: NVIDIA driver — DMA-BUF renderer off");
  return true;
}

} // namespace orvane
