#include "desktop/MessageBus.h"

#include <algorithm>

namespace orvane {

BusAddress BusAddressFor(const std::string& name) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos)
    return BusAddress{std::string(), name, std::string(1, '/')};
  std::string interface = name.substr(0, dot);
  std::string path = "/" + interface;
  std::replace(path.begin(), path.end(), '.', '/');
  return BusAddress{interface, name.substr(dot + 1), path};
}

} // namespace orvane
