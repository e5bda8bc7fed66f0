// The local PDF library: the signed-in account and its folder.
#pragma once

#include <optional>
#include <string>

namespace orvane {

class PdfStore {
public:
  // nullopt until the first page says hello.
  const std::optional<std::string>& account() const { return account_; }
  // Sets the account subfolder from the name a page gave; see SanitisedAccount.
  void setAccount(const std::string& name);
  // The library folder joined with the account.
  std::string folder() const;

private:
  std::optional<std::string> account_;
};

// Lower-cased, reduced to "a-z0-9._-", "default" when nothing is left.
std::string SanitisedAccount(const std::string& name);

} // namespace orvane
