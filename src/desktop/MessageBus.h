// The message bus seam: named notifications between processes, each carrying
// one string ("" when there is none). On Linux these are D-Bus session-bus
// signals; the name "a.b.c.member" is interface "a.b.c", member "member",
// object path "/a/b/c".
#pragma once

#include <functional>
#include <string>

namespace orvane {

class MessageBus {
public:
  using Handler = std::function<void(const std::string& object)>;
  virtual ~MessageBus() = default;
  // Handlers run on the main loop. Returns false when the bus is unreachable.
  virtual bool subscribe(const std::string& name, Handler handler) = 0;
  virtual bool post(const std::string& name, const std::string& object) = 0;
};

// Splits "a.b.c.member" into its D-Bus interface, member and object path.
struct BusAddress {
  std::string interface;
  std::string member;
  std::string path;
};
BusAddress BusAddressFor(const std::string& name);

} // namespace orvane
