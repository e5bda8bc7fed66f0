#include "desktop/kwin/AppScope.h"

#include "base/GObjectPtr.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <fstream>
#include <sstream>
#include <unistd.h>

namespace orvane {

namespace {

// /proc/PID/cgroup is a few lines; anything longer is not read further.
constexpr size_t kMaxCgroupText = 64 * 1024;

std::string ReadCgroup(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string text(kMaxCgroupText, '\0');
  in.read(text.data(), std::streamsize(text.size()));
  text.resize(size_t(in.gcount()));
  return text;
}

std::string ScopeSuffix() {
  std::string uuid = NewUpperCaseUuid();
  std::string suffix;
  for (char c : uuid)
    if (c != '-')
      suffix += char(std::tolower(static_cast<unsigned char>(c)));
  return suffix.substr(0, 12);
}

} // namespace

bool CgroupIsAppScope(const std::string& cgroup_text) {
  std::string prefix = "app-";
  prefix.append(kAppScopeId).append("-");
  const std::string suffix = ".scope";
  std::istringstream lines(cgroup_text);
  std::string line;
  while (std::getline(lines, line)) {
    // "hierarchy-ID:controllers:path"
    size_t first = line.find(':');
    size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    if (second == std::string::npos)
      continue;
    std::string path = line.substr(second + 1);
    std::string last = path.substr(path.rfind('/') + 1);
    if (last.size() > prefix.size() + suffix.size() &&
        last.compare(0, prefix.size(), prefix) == 0 &&
        last.compare(last.size() - suffix.size(), suffix.size(), suffix) == 0)
      return true;
  }
  return false;
}

std::string AppScopeUnitName(const std::string& suffix) {
  std::string name = "app-";
  name.append(kAppScopeId).append("-").append(suffix).append(".scope");
  return name;
}

GVariant* TransientScopeParameters(const std::string& unit, uint32_t pid) {
  GVariantBuilder properties;
  g_variant_builder_init(&properties, G_VARIANT_TYPE("a(sv)"));
  g_variant_builder_add(&properties, "(sv)", "PIDs",
                        g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, &pid, 1, sizeof pid));
  g_variant_builder_add(&properties, "(sv)", "Description", g_variant_new_string("Orvane"));
  GVariantBuilder auxiliary;
  g_variant_builder_init(&auxiliary, G_VARIANT_TYPE("a(sa(sv))"));
  return g_variant_new("(ssa(sv)a(sa(sv)))", unit.c_str(), "fail", &properties, &auxiliary);
}

bool EnsureAppScope(GDBusConnection* session_bus, const std::string& cgroup_file) {
  if (CgroupIsAppScope(ReadCgroup(cgroup_file)))
    return true;
  auto give_up = [](const std::string& why) {
    SparLog("hotkeys: cannot move into a systemd scope (%@) — the desktop may not know Orvane's "
            "shortcuts",
            why);
    return false;
  };
  if (!session_bus)
    return give_up("no session bus");
  std::string unit = AppScopeUnitName(ScopeSuffix());
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      session_bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
      "org.freedesktop.systemd1.Manager", "StartTransientUnit",
      TransientScopeParameters(unit, guint32(getpid())), G_VARIANT_TYPE("(o)"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, 1500, nullptr, error.out()));
  if (!reply) {
    GCharPtr remote(g_dbus_error_get_remote_error(error.get()));
    if (remote && (remote.str() == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                   remote.str() == "org.freedesktop.DBus.Error.NameHasNoOwner"))
      return give_up("no systemd user manager on the session bus");
    g_dbus_error_strip_remote_error(error.get());
    return give_up(error.message());
  }
  // The job moves the process soon after the call returns.
  gint64 deadline = g_get_monotonic_time() + 500 * 1000;
  while (g_get_monotonic_time() < deadline) {
    if (CgroupIsAppScope(ReadCgroup(cgroup_file)))
      return true;
    g_usleep(10 * 1000);
  }
  return give_up("systemd started " + unit + " but this process is not in it");
}

} // namespace orvane
