#include "base/SharedLibrary.h"

namespace orvane {

namespace {

std::string FileName(const std::string& soname, const char* override_variable) {
  const char* named = override_variable ? g_getenv(override_variable) : nullptr;
  return named && *named ? named : soname;
}

} // namespace

SharedLibrary::SharedLibrary(const std::string& soname, const char* override_variable)
    : file_name_(FileName(soname, override_variable)) {
  // Local binding: its symbols do not join the program's global scope, where
  // they could stand in for another library's of the same name.
  module_ =
      g_module_open(file_name_.c_str(), GModuleFlags(G_MODULE_BIND_LAZY | G_MODULE_BIND_LOCAL));
  if (!module_) {
    const char* why = g_module_error();
    error_ = why ? why : file_name_ + " could not be opened";
    return;
  }
  g_module_make_resident(module_);
}

void* SharedLibrary::symbol(const char* name) {
  if (!module_)
    return nullptr;
  void* address = nullptr;
  if (!g_module_symbol(module_, name, &address) || !address) {
    error_ = file_name_ + " has no " + name;
    missing_ = true;
    return nullptr;
  }
  return address;
}

} // namespace orvane
