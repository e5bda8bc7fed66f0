// Real Wayland clients for the KWin selection tests: child processes read
// line by line, tools run to completion while the main loop keeps running,
// and tools run while the main thread is blocked (to show that serving the
// CLIPBOARD does not need it).
#pragma once

#include <gtest/gtest.h>

#include "support/MainLoop.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <optional>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace orvane {

// A child process; its standard output is read line by line, its standard
// input written. Ended by pid when the object goes.
class Child {
public:
  static std::unique_ptr<Child> Start(const std::vector<std::string>& argv) {
    std::vector<gchar*> args;
    for (const std::string& arg : argv)
      args.push_back(const_cast<gchar*>(arg.c_str()));
    args.push_back(nullptr);
    auto child = std::unique_ptr<Child>(new Child);
    GError* error = nullptr;
    if (!g_spawn_async_with_pipes(nullptr, args.data(), nullptr,
                                  GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
                                  nullptr, nullptr, &child->pid_, &child->in_, &child->out_,
                                  nullptr, &error)) {
      g_clear_error(&error);
      return nullptr;
    }
    fcntl(child->out_, F_SETFL, O_NONBLOCK);
    return child;
  }
  ~Child() {
    if (in_ >= 0)
      close(in_);
    if (out_ >= 0)
      close(out_);
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

  int pid() const { return pid_; }

  // The next line of output, spinning the main loop while waiting.
  std::optional<std::string> readLine(double seconds = 20) {
    std::optional<std::string> line;
    SpinUntil(
        [&] {
          pump();
          size_t end = buffer_.find('\n');
          if (end == std::string::npos)
            return false;
          line = buffer_.substr(0, end);
          buffer_.erase(0, end + 1);
          return true;
        },
        seconds);
    return line;
  }

  void closeInput() {
    if (in_ >= 0)
      close(in_);
    in_ = -1;
  }

  void write(const std::string& text) {
    if (::write(in_, text.data(), text.size()) < 0)
      perror("write to child");
  }

  void writeLine(const std::string& line) { write(line + "\n"); }

  // Waits for the child to exit (spinning the main loop); its status, or
  // nothing when it is still running.
  std::optional<int> waitExit(double seconds = 20) {
    SpinUntil(
        [&] {
          pump();
          if (!exited_ && waitpid(pid_, &status_, WNOHANG) == pid_)
            exited_ = true;
          return exited_;
        },
        seconds);
    if (!exited_)
      return std::nullopt;
    return status_;
  }

  // All output read so far and until the child closes it.
  std::string output() {
    pump();
    return buffer_;
  }

private:
  Child() = default;
  void pump() {
    char chunk[4096];
    for (;;) {
      ssize_t got = read(out_, chunk, sizeof chunk);
      if (got <= 0)
        break;
      buffer_.append(chunk, size_t(got));
    }
  }

  GPid pid_ = 0;
  int in_ = -1, out_ = -1;
  bool exited_ = false;
  int status_ = 0;
  std::string buffer_;
};

struct ToolResult {
  int status = -1; // the wait status; -1 when it did not end in time
  std::string out;
  bool ok() const { return status == 0; }
};

// Runs a tool to completion (the main loop keeps running meanwhile).
inline ToolResult RunTool(const std::vector<std::string>& argv, double seconds = 20) {
  ToolResult result;
  std::unique_ptr<Child> child = Child::Start(argv);
  if (!child)
    return result;
  std::optional<int> status = child->waitExit(seconds);
  result.out = child->output();
  if (status)
    result.status = *status;
  return result;
}

// Starts a fixture and waits for the line it prints once it is up.
inline std::unique_ptr<Child> StartAndWaitFor(const std::vector<std::string>& argv,
                                              const std::string& line) {
  std::unique_ptr<Child> child = Child::Start(argv);
  if (!child)
    return nullptr;
  std::optional<std::string> got = child->readLine();
  if (!got || *got != line)
    return nullptr;
  return child;
}

// Runs a tool with a time limit WITHOUT running this thread's main loop
// (whatever answers it must do so from another thread or process); its
// standard output goes to `out_file`. The wait status; -1 when it could not
// be run.
inline int RunToolBlocking(const std::vector<std::string>& argv, const std::string& out_file,
                           int seconds = 10) {
  std::vector<std::string> full{
      "sh", "-c",     "out=$1; shift; exec timeout -s KILL \"$@\" >\"$out\"",
      "sh", out_file, std::to_string(seconds)};
  full.insert(full.end(), argv.begin(), argv.end());
  std::vector<gchar*> args;
  for (const std::string& arg : full)
    args.push_back(const_cast<gchar*>(arg.c_str()));
  args.push_back(nullptr);
  gint status = -1;
  if (!g_spawn_sync(nullptr, args.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, nullptr,
                    nullptr, &status, nullptr))
    return -1;
  return status;
}

inline std::string FixturePath(const std::string& name) {
  return std::string(ORVANE_KWIN_FIXTURES) + "/" + name;
}

inline std::string DataControlOwner() {
  return ORVANE_DATA_CONTROL_OWNER;
}

} // namespace orvane
