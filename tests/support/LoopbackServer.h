// Real HTTP servers on loopback for tests, each on a thread of its own so
// that code under test may block the test's thread while they answer.
#pragma once

#include <libsoup/soup.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvane {

// Answers every request with a fixed status and records the paths.
class LoopbackServer {
public:
  LoopbackServer(const std::string& host, int status) : status_(status) {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    g_main_context_push_thread_default(context_);
    server_ = soup_server_new(nullptr, nullptr);
    soup_server_add_handler(
        server_, nullptr,
        [](SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer data) {
          auto* self = static_cast<LoopbackServer*>(data);
          {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->paths_.push_back(path);
          }
          soup_server_message_set_status(message, self->status_, nullptr);
          soup_server_message_set_response(message, "application/json", SOUP_MEMORY_COPY, "[]", 2);
        },
        this, nullptr);
    GInetAddress* inet = g_inet_address_new_from_string(host.c_str());
    GSocketAddress* address = g_inet_socket_address_new(inet, 0);
    soup_server_listen(server_, address, SoupServerListenOptions(0), nullptr);
    g_object_unref(address);
    g_object_unref(inet);
    GSList* uris = soup_server_get_uris(server_);
    if (uris) {
      char* text = g_uri_to_string(static_cast<GUri*>(uris->data));
      address_ = text;
      g_free(text);
      while (!address_.empty() && address_.back() == '/')
        address_.pop_back();
    }
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    g_main_context_pop_thread_default(context_);
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }
  ~LoopbackServer() {
    g_main_context_invoke(
        context_,
        [](gpointer loop) -> gboolean {
          g_main_loop_quit(static_cast<GMainLoop*>(loop));
          return G_SOURCE_REMOVE;
        },
        loop_);
    thread_.join();
    g_main_context_push_thread_default(context_);
    soup_server_disconnect(server_);
    g_object_unref(server_);
    g_main_context_pop_thread_default(context_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  // "http://127.0.0.1:PORT"
  const std::string& address() const { return address_; }
  int requestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return int(paths_.size());
  }
  std::vector<std::string> paths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return paths_;
  }

private:
  int status_;
  GMainContext* context_;
  GMainLoop* loop_;
  SoupServer* server_;
  std::thread thread_;
  std::string address_;
  mutable std::mutex mutex_;
  std::vector<std::string> paths_;
};

// Accepts connections and never answers.
class SilentServer {
public:
  SilentServer() {
    GError* error = nullptr;
    listener_ =
        g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error);
    GInetAddress* inet = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
    GSocketAddress* any = g_inet_socket_address_new(inet, 0);
    g_socket_bind(listener_, any, TRUE, nullptr);
    g_socket_listen(listener_, nullptr);
    GSocketAddress* bound = g_socket_get_local_address(listener_, nullptr);
    port_ = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
    g_object_unref(bound);
    g_object_unref(any);
    g_object_unref(inet);
  }
  ~SilentServer() {
    g_socket_close(listener_, nullptr);
    g_object_unref(listener_);
  }
  std::string address() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
  GSocket* listener_;
  int port_ = 0;
};

} // namespace orvane
