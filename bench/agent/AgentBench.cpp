// How fast an agent's output reaches the page as line events, against the
// limit of reading the same bytes from a bare pipe.
//
// The program is its own stand-in agent: run with "--agent N" it writes N
// lines of about 100 bytes to standard output as fast as it can, in 64 KiB
// writes, and prints the monotonic time of its first write to standard
// error. The benchmark runs it
//   1. as a turn through AgentTurns, counting "claudeLine" events in the
//      event sink and checking that every line arrives once and in order;
//   2. under a bare pipe read on the same main loop, one callback per read
//      that only counts line feeds: the limit.
// It reports lines per second for both, their ratio, and the time from the
// agent's first write to the first line event (first read for the limit).
#include "BenchSupport.h"
#include "agent/AgentTurns.h"
#include "base/SparLog.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

using bench::FirstWriteFrom;
using bench::Median;
using bench::NowNs;

// One line of the stand-in's output: 100 bytes with its line feed, like a
// short line of streamed JSON.
std::string AgentLine(long i) {
  char prefix[64];
  int length = snprintf(prefix, sizeof prefix, "%07ld {\"type\":\"assistant\",\"text\":\"", i);
  std::string line(prefix, size_t(length));
  line.append(97 - line.size(), '.');
  line += "\"}\n";
  return line;
}

// The stand-in agent.
int RunAgent(long count) {
  std::string output;
  output.reserve(size_t(count) * AgentLine(0).size());
  for (long i = 0; i < count; ++i)
    output += AgentLine(i);
  int64_t first_write = 0;
  const size_t chunk = 64 * 1024;
  for (size_t at = 0; at < output.size();) {
    if (!first_write)
      first_write = NowNs();
    ssize_t wrote = write(1, output.data() + at, std::min(chunk, output.size() - at));
    if (wrote <= 0)
      return 1;
    at += size_t(wrote);
  }
  fprintf(stderr, "first-write %" PRId64 "\n", first_write);
  return 0;
}

struct Result {
  double lines_per_second = 0;
  double first_line_ms = 0;
  bool complete = false;
};

std::string SelfPath() {
  gchar* path = g_file_read_link("/proc/self/exe", nullptr);
  std::string result = path ? path : "";
  g_free(path);
  return result;
}

// A turn through AgentTurns; the event sink checks every line.
Result MeasureTurns(const std::string& self, long count, const std::string& folder) {
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  long received = 0;
  bool in_order = true;
  int64_t first_event = 0, last_event = 0;
  std::string standard_error;
  int code = -1;
  const size_t line_length = AgentLine(0).size() - 1;
  orvane::AgentTurns turns(
      [&] { return std::optional<std::string>(self); }, [&] { return folder; },
      [&](const orvane::Event& event) {
        const std::string& type = event["type"].get_ref<const std::string&>();
        if (type == "claudeLine") {
          last_event = NowNs();
          if (!received)
            first_event = last_event;
          const std::string& line = event["line"].get_ref<const std::string&>();
          if (std::strtol(line.c_str(), nullptr, 10) != received || line.size() != line_length)
            in_order = false;
          ++received;
        } else if (type == "claudeDone") {
          standard_error = event["stderr"];
          code = event["code"];
          g_main_loop_quit(loop);
        }
      });
  turns.runClaude({{"turn", "bench"}, {"args", {"--agent", std::to_string(count)}}});
  g_main_loop_run(loop);
  g_main_loop_unref(loop);

  Result result;
  int64_t first_write = FirstWriteFrom(standard_error);
  result.complete = code == 0 && received == count && in_order && first_write;
  if (result.complete) {
    result.lines_per_second = double(count) / (double(last_event - first_write) / 1e9);
    result.first_line_ms = double(first_event - first_write) / 1e6;
  } else {
    fprintf(stderr, "turn: code %d, %ld of %ld lines, %s\n", code, received, count,
            in_order ? "in order" : "OUT OF ORDER");
  }
  return result;
}

// The limit: the same agent read from a bare pipe on the same main loop, the
// bytes handed to one callback per read that counts line feeds.
Result MeasureBarePipe(const std::string& self, long count) {
  std::string count_text = std::to_string(count);
  const char* argv[] = {self.c_str(), "--agent", count_text.c_str(), nullptr};
  GPid pid = 0;
  int out = -1, err = -1;
  if (!g_spawn_async_with_pipes(nullptr, const_cast<char**>(argv), nullptr,
                                G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &pid, nullptr, &out,
                                &err, nullptr))
    return {};
  g_unix_set_fd_nonblocking(out, TRUE, nullptr);

  struct State {
    GMainLoop* loop;
    int fd;
    std::vector<char> buffer = std::vector<char>(64 * 1024);
    long lines = 0;
    int64_t first_read = 0, last_read = 0;
    void handOff(const char* data, size_t length) {
      for (const char* p = data;
           (p = static_cast<const char*>(std::memchr(p, '\n', size_t(data + length - p)))); ++p)
        ++lines;
    }
  } state{g_main_loop_new(nullptr, FALSE), out};
  g_unix_fd_add(
      out, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR),
      [](int fd, GIOCondition, gpointer data) -> gboolean {
        auto* state = static_cast<State*>(data);
        ssize_t got = read(fd, state->buffer.data(), state->buffer.size());
        if (got < 0 && errno == EAGAIN)
          return G_SOURCE_CONTINUE;
        if (got <= 0) {
          g_main_loop_quit(state->loop);
          return G_SOURCE_REMOVE;
        }
        state->last_read = NowNs();
        if (!state->first_read)
          state->first_read = state->last_read;
        state->handOff(state->buffer.data(), size_t(got));
        return G_SOURCE_CONTINUE;
      },
      &state);
  g_main_loop_run(state.loop);
  g_main_loop_unref(state.loop);
  close(out);
  std::string standard_error;
  char buffer[256];
  ssize_t got;
  while ((got = read(err, buffer, sizeof buffer)) > 0)
    standard_error.append(buffer, size_t(got));
  close(err);
  int status = 0;
  waitpid(pid, &status, 0);
  g_spawn_close_pid(pid);

  Result result;
  int64_t first_write = FirstWriteFrom(standard_error);
  result.complete = state.lines == count && first_write;
  if (result.complete) {
    result.lines_per_second = double(count) / (double(state.last_read - first_write) / 1e9);
    result.first_line_ms = double(state.first_read - first_write) / 1e6;
  }
  return result;
}

} // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--agent") == 0)
    return RunAgent(std::atol(argv[2]));

  long count = 500000;
  int runs = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--lines") == 0)
      count = std::atol(argv[i + 1]);
    else if (std::strcmp(argv[i], "--runs") == 0)
      runs = std::atoi(argv[i + 1]);
  }

  gchar* folder = g_dir_make_tmp("orvane-bench-XXXXXX", nullptr);
  std::string working = folder;
  g_free(folder);
  orvane::SetLogFilePathForTesting(working + "/Orvane.log");
  std::string self = SelfPath();

  std::vector<double> turn_rate, turn_first, pipe_rate, pipe_first;
  bool all_complete = true;
  for (int run = 0; run < runs; ++run) {
    Result limit = MeasureBarePipe(self, count);
    Result turn = MeasureTurns(self, count, working);
    all_complete = all_complete && limit.complete && turn.complete;
    pipe_rate.push_back(limit.lines_per_second);
    pipe_first.push_back(limit.first_line_ms);
    turn_rate.push_back(turn.lines_per_second);
    turn_first.push_back(turn.first_line_ms);
    printf("run %d: bare pipe %.0f lines/s (first read %.3f ms), turn %.0f lines/s (first line "
           "%.3f ms)\n",
           run + 1, limit.lines_per_second, limit.first_line_ms, turn.lines_per_second,
           turn.first_line_ms);
  }
  double limit = Median(pipe_rate), rate = Median(turn_rate);
  printf("\n%ld lines (%.1f MB) per run, %d runs, medians:\n", count,
         count * double(AgentLine(0).size()) / 1e6, runs);
  printf("  bare pipe (limit):  %12.0f lines/s   first read  %.3f ms\n", limit, Median(pipe_first));
  printf("  turn line events:   %12.0f lines/s   first line  %.3f ms\n", rate, Median(turn_first));
  printf("  turn / limit:       %11.1f %%          (goal >= 50 %%; first line goal <= 15 ms)\n",
         limit > 0 ? 100.0 * rate / limit : 0.0);
  printf("  every line received once and in order: %s\n", all_complete ? "yes" : "NO");

  g_unlink((working + "/Orvane.log").c_str());
  g_rmdir(working.c_str());
  return all_complete ? 0 : 1;
}
