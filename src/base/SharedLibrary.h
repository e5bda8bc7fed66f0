// A shared library opened when a feature first needs it rather than at exec.
// Code that only some features run (reading a PDF, unpacking an update) then
// costs the launch nothing: neither the library nor the libraries it needs
// are mapped, relocated or initialised until then. A library opened this way
// is listed in build/opened-libraries.txt (CMakeLists.txt), from which the
// release's package takes its dependency on it.
#pragma once

#include <gmodule.h>

#include <string>

namespace orvane {

class SharedLibrary {
public:
  // Opens the library by its file name (its soname, as the loader finds it),
  // or by the one the environment variable `override_variable` names when it
  // is set and not empty. A library once opened stays for the process's
  // life: one that registers GObject types may never be unloaded.
  explicit SharedLibrary(const std::string& soname, const char* override_variable = nullptr);
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  bool loaded() const { return module_ != nullptr; }
  // The file opened, or tried.
  const std::string& fileName() const { return file_name_; }
  // Opened, and every function asked for so far was found.
  bool complete() const { return module_ != nullptr && !missing_; }
  // Why the library or the last symbol asked for could not be found; never
  // empty when the library is not complete().
  const std::string& error() const { return error_; }

  // The function `name`, typed as the declaration it was given for; nullptr,
  // with error() saying so, when the library lacks it.
  template <typename Function> Function* function(const char* name) {
    return reinterpret_cast<Function*>(symbol(name));
  }

private:
  void* symbol(const char* name);

  GModule* module_ = nullptr;
  std::string file_name_;
  std::string error_;
  bool missing_ = false;
};

// Looks a function up by the name of its declaration, typed by it, so that
// a call through the pointer is checked like a direct one.
#define ORVANE_LIBRARY_FUNCTION(library, function_name)                                            \
  (library).function<decltype(function_name)>(#function_name)

} // namespace orvane
