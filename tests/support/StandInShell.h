// A stand-in for GNOME Shell on the test's private session bus: a peer on a
// thread and a connection of its own that owns org.gnome.Shell (or another
// name) and serves com.tarnwick.orvane.Shell at /com/tarnwick/orvane/Shell
// (from the interface's XML in the source tree) and
// org.gnome.Shell.Extensions at /org/gnome/Shell. Each method answers what
// the test set for it, as GVariant text ("(uint32 1,)"), sent as a raw reply
// so that a test can answer with the wrong types on purpose; "@hold" never
// answers (until the peer goes), "@error" answers with an error, and a
// method without an answer gets an error too. Calls are recorded as
// "Method (args)".
#pragma once

#include "base/GObjectPtr.h"

#include <atomic>
#include <gio/gio.h>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvane {

class StandInShell {
public:
  // Without `serve_interface` it is a shell without the extension: only
  // org.gnome.Shell.Extensions is served.
  explicit StandInShell(std::string name = "org.gnome.Shell", bool serve_interface = true)
      : name_(std::move(name)), serve_interface_(serve_interface) {
    thread_ = std::thread([this] { run(); });
    while (!ready_)
      g_usleep(1000);
  }
  ~StandInShell() {
    stop_ = true;
    thread_.join();
  }
  StandInShell(const StandInShell&) = delete;
  StandInShell& operator=(const StandInShell&) = delete;

  void answer(const std::string& method, const std::string& reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_[method] = reply;
  }
  // What org.gnome.Shell's ShellVersion property says; empty: no such
  // property (a Get fails).
  void shellVersion(const std::string& version) {
    std::lock_guard<std::mutex> lock(mutex_);
    shell_version_ = version;
  }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  size_t callsOf(const std::string& method) {
    size_t count = 0;
    for (const std::string& call : calls())
      if (call.rfind(method + " ", 0) == 0)
        ++count;
    return count;
  }
  void clearCalls() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }
  // The unique name of the stand-in's connection.
  std::string uniqueName() const { return unique_name_; }
  // Emits a signal of the interface from the owner's connection (GDBus
  // connections may be used from any thread).
  void emitSignal(const std::string& destination, const char* name, GVariant* parameters) {
    g_dbus_connection_emit_signal(bus_.get(), destination.c_str(), "/com/tarnwick/orvane/Shell",
                                  "com.tarnwick.orvane.Shell", name, parameters, nullptr);
    g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
  }
  void emitHotkey(const std::string& destination, GVariant* parameters) {
    emitSignal(destination, "HotkeyPressed", parameters);
  }

private:
  static void OnCall(GDBusConnection* bus, const gchar*, const gchar*, const gchar*,
                     const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<StandInShell*>(data);
    std::string reply;
    bool has_reply = false;
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      GCharPtr args(g_variant_print(parameters, FALSE));
      self->calls_.push_back(std::string(method) + " " + args.str());
      auto it = self->replies_.find(method);
      if (it != self->replies_.end()) {
        reply = it->second;
        has_reply = true;
      }
    }
    if (has_reply && reply == "@hold") {
      self->held_.push_back(invocation);
      return;
    }
    if (!has_reply || reply == "@error") {
      g_dbus_method_invocation_return_dbus_error(
          invocation, "com.tarnwick.orvane.Shell.Error.Failed", "the stand-in has no answer");
      return;
    }
    GErrorPtr error;
    GVariant* body = g_variant_parse(nullptr, reply.c_str(), nullptr, nullptr, error.out());
    if (!body) {
      g_printerr("stand-in: cannot parse %s: %s\n", reply.c_str(), error.message().c_str());
      g_dbus_method_invocation_return_dbus_error(invocation, "org.test.Error", "bad reply text");
      return;
    }
    // A raw reply: the interface's declared types are not enforced.
    GDBusMessage* message =
        g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation));
    g_dbus_message_set_body(message, body);
    g_dbus_connection_send_message(bus, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
    g_object_unref(invocation);
  }

  static GVariant* OnGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                 const gchar*, GError** error, gpointer data) {
    auto* self = static_cast<StandInShell*>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (self->shell_version_.empty()) {
      g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no version");
      return nullptr;
    }
    return g_variant_new_string(self->shell_version_.c_str());
  }

  void run() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    bus_ = GObjectPtr<GDBusConnection>::adopt(g_dbus_connection_new_for_address_sync(
        address.get(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
    unique_name_ = g_dbus_connection_get_unique_name(bus_.get());
    gchar* xml = nullptr;
    g_file_get_contents(ORVANE_GNOME_SHELL_XML, &xml, nullptr, nullptr);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml ? xml : "<node/>", nullptr);
    g_free(xml);
    GDBusNodeInfo* extensions = g_dbus_node_info_new_for_xml(
        R"(<node><interface name="org.gnome.Shell.Extensions">
             <method name="GetExtensionInfo"><arg type="s" direction="in"/>
               <arg type="a{sv}" direction="out"/></method>
             <method name="EnableExtension"><arg type="s" direction="in"/>
               <arg type="b" direction="out"/></method>
           </interface>
           <interface name="org.gnome.Shell">
             <property name="ShellVersion" type="s" access="read"/>
           </interface></node>)",
        nullptr);
    GDBusInterfaceVTable vtable{&StandInShell::OnCall, nullptr, nullptr, {}};
    guint shell = 0;
    if (serve_interface_ && node && node->interfaces && node->interfaces[0])
      shell =
          g_dbus_connection_register_object(bus_.get(), "/com/tarnwick/orvane/Shell",
                                            node->interfaces[0], &vtable, this, nullptr, nullptr);
    guint manager = g_dbus_connection_register_object(
        bus_.get(), "/org/gnome/Shell", extensions->interfaces[0], &vtable, this, nullptr, nullptr);
    GDBusInterfaceVTable properties{nullptr, &StandInShell::OnGetProperty, nullptr, {}};
    guint shell_properties =
        g_dbus_connection_register_object(bus_.get(), "/org/gnome/Shell", extensions->interfaces[1],
                                          &properties, this, nullptr, nullptr);
    // The stand-in of an earlier test may still hold the name for a moment.
    for (int i = 0; i < 200; ++i) {
      GVariantPtr owned(g_dbus_connection_call_sync(
          bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "RequestName", g_variant_new("(su)", name_.c_str(), 4u), G_VARIANT_TYPE("(u)"),
          G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr));
      guint32 result = 0;
      if (owned)
        g_variant_get(owned.get(), "(u)", &result);
      if (result == 1 || result == 4)
        break;
      g_usleep(10000);
    }
    registered_ = shell != 0 || !serve_interface_;
    ready_ = true;
    while (!stop_)
      if (!g_main_context_iteration(context, FALSE))
        g_usleep(1000);
    for (GDBusMethodInvocation* invocation : held_)
      g_dbus_method_invocation_return_dbus_error(invocation, "org.test.Error", "gone");
    if (shell)
      g_dbus_connection_unregister_object(bus_.get(), shell);
    g_dbus_connection_unregister_object(bus_.get(), manager);
    g_dbus_connection_unregister_object(bus_.get(), shell_properties);
    if (node)
      g_dbus_node_info_unref(node);
    g_dbus_node_info_unref(extensions);
    g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
    g_dbus_connection_close_sync(bus_.get(), nullptr, nullptr);
    bus_ = {};
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

public:
  // Whether the interface's XML was found and its object registered.
  bool registered() const { return registered_; }

private:
  std::string name_;
  bool serve_interface_ = true;
  GObjectPtr<GDBusConnection> bus_;
  std::string unique_name_;
  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
  std::atomic<bool> registered_{false};
  std::mutex mutex_;
  std::map<std::string, std::string> replies_;
  std::string shell_version_ = "43.9";
  std::vector<std::string> calls_;
  std::vector<GDBusMethodInvocation*> held_;
  std::thread thread_;
};

} // namespace orvane
