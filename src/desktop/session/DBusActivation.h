// Activation through the program's own org.freedesktop.Application
// interface on the session bus: the running instance gets "activate" with
// the key press's time as its startup id, as if it had been started again.
#pragma once

#include "desktop/Activation.h"

#include <string>

namespace orvane {

class DBusActivation final : public Activation {
public:
  // The bus name and object path the application exports itself under.
  DBusActivation(std::string bus_name, std::string object_path);
  void requestActivation(uint32_t timestamp, Completion completion) override;

  // "_TIME<timestamp>", the startup id that carries the user's time.
  static std::string StartupId(uint32_t timestamp);

private:
  std::string bus_name_;
  std::string object_path_;
};

} // namespace orvane
