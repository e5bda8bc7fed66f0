// Small RAII owners for GLib/GObject C handles. Logic code never calls
// g_object_unref, g_free or g_error_free by hand; it holds one of these.
#pragma once

#include <glib-object.h>
#include <glib.h>

#include <string>
#include <utility>

namespace orvane {

// Owns one strong reference to a GObject (or any type g_object_ref accepts).
template <typename T> class GObjectPtr {
public:
  GObjectPtr() = default;
  // Takes over a reference the caller already owns (a "transfer full" result).
  static GObjectPtr adopt(T* object) {
    GObjectPtr p;
    p.object_ = object;
    return p;
  }
  // Adds a reference of its own (for "transfer none" results).
  static GObjectPtr retain(T* object) {
    GObjectPtr p;
    p.object_ = object ? static_cast<T*>(g_object_ref(object)) : nullptr;
    return p;
  }
  GObjectPtr(const GObjectPtr& other) : object_(other.object_) {
    if (object_)
      g_object_ref(object_);
  }
  GObjectPtr(GObjectPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  GObjectPtr& operator=(GObjectPtr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~GObjectPtr() {
    if (object_)
      g_object_unref(object_);
  }

  T* get() const { return object_; }
  T* release() { return std::exchange(object_, nullptr); }
  explicit operator bool() const { return object_ != nullptr; }

private:
  T* object_ = nullptr;
};

// Owns a g_malloc'ed string.
class GCharPtr {
public:
  GCharPtr() = default;
  explicit GCharPtr(gchar* text) : text_(text) {}
  GCharPtr(const GCharPtr&) = delete;
  GCharPtr& operator=(const GCharPtr&) = delete;
  GCharPtr(GCharPtr&& other) noexcept : text_(std::exchange(other.text_, nullptr)) {}
  ~GCharPtr() { g_free(text_); }

  gchar* get() const { return text_; }
  gchar** out() {
    g_free(std::exchange(text_, nullptr));
    return &text_;
  }
  std::string str() const { return text_ ? std::string(text_) : std::string(); }
  explicit operator bool() const { return text_ != nullptr; }

private:
  gchar* text_ = nullptr;
};

// Owns a GError; `out()` is passed where an API wants a GError**.
class GErrorPtr {
public:
  GErrorPtr() = default;
  GErrorPtr(const GErrorPtr&) = delete;
  GErrorPtr& operator=(const GErrorPtr&) = delete;
  ~GErrorPtr() { clear(); }

  GError** out() {
    clear();
    return &error_;
  }
  GError* get() const { return error_; }
  explicit operator bool() const { return error_ != nullptr; }
  std::string message() const { return error_ && error_->message ? error_->message : ""; }
  bool matches(GQuark domain, int code) const { return g_error_matches(error_, domain, code); }

private:
  void clear() {
    if (error_)
      g_error_free(std::exchange(error_, nullptr));
  }
  GError* error_ = nullptr;
};

// Owns any GLib handle with a plain free function (GKeyFile, GBytes, GVariant...).
template <typename T, void (*Free)(T*)> class GHandle {
public:
  GHandle() = default;
  explicit GHandle(T* handle) : handle_(handle) {}
  GHandle(const GHandle&) = delete;
  GHandle& operator=(const GHandle&) = delete;
  GHandle(GHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  GHandle& operator=(GHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~GHandle() {
    if (handle_)
      Free(handle_);
  }
  T* get() const { return handle_; }
  T* release() { return std::exchange(handle_, nullptr); }
  explicit operator bool() const { return handle_ != nullptr; }

private:
  T* handle_ = nullptr;
};

using GKeyFilePtr = GHandle<GKeyFile, g_key_file_unref>;
using GBytesPtr = GHandle<GBytes, g_bytes_unref>;
using GVariantPtr = GHandle<GVariant, g_variant_unref>;
using GMainContextPtr = GHandle<GMainContext, g_main_context_unref>;

} // namespace orvane
