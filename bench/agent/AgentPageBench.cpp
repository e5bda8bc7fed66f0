// How fast an agent's output reaches a real WebKit page as "claudeLine"
// events, against the limit of handing the same bytes, read from a bare
// pipe, to the page with one script evaluation per read.
//
// The stand-in agent is orvane_agent_bench in its "--agent N" mode, which
// writes N lines of about 100 bytes as fast as it can and reports the time
// of its first write. Figures are taken from that first write until the page
// says it has seen every line; the first-line figure until the page says it
// has seen the first. Needs a display: run it under xvfb-run (make bench
// does).
#include "BenchSupport.h"
#include "agent/AgentTurns.h"
#include "bridge/EventDelivery.h"
#include "web/WebPage.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <glib-unix.h>
#include <glib/gstdio.h>
#include <gtk/gtk.h>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <webkit2/webkit2.h>

namespace {

using bench::FirstWriteFrom;
using bench::Median;
using bench::NowNs;

// The page counts what reaches it and says so through the message channel.
constexpr char kPage[] = R"(<!doctype html><meta charset="utf-8"><script>
let lines = 0, ordered = true, first = false;
function tell(kind) { window.webkit.messageHandlers.panel.postMessage({kind, lines, ordered}); }
function seen(count) { if (!first && count > 0) { first = true; tell('first'); } }
window.reset = () => { lines = 0; ordered = true; first = false; };
window.panelEvent = (e) => {
  if (e.type === 'claudeLine') {
    if (parseInt(e.line, 10) !== lines) ordered = false;
    lines++; seen(lines);
  } else if (e.type === 'claudeDone') {
    tell('done');
  } else if (e.type === 'chunk') {
    lines += e.data.split('\n').length - 1; seen(lines);
  } else if (e.type === 'end') {
    tell('done');
  }
};
</script>)";

struct PageState {
  GMainLoop* loop = nullptr;
  int64_t first_seen = 0;
  int64_t done_seen = 0;
  long lines = 0;
  bool ordered = false;
  bool loaded = false;
};

struct Figure {
  double lines_per_second = 0;
  double first_ms = 0;
  bool complete = false;
};

void Evaluate(WebKitWebView* view, const std::string& script) {
  webkit_web_view_evaluate_javascript(view, script.c_str(), gssize(script.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}

Figure Finish(const PageState& page, int64_t first_write, long count) {
  Figure figure;
  figure.complete = page.lines == count && page.ordered && first_write && page.done_seen;
  if (figure.complete) {
    figure.lines_per_second = double(count) / (double(page.done_seen - first_write) / 1e9);
    figure.first_ms = double(page.first_seen - first_write) / 1e6;
  }
  return figure;
}

// Every line through the real turn runner and the real event script.
Figure MeasureTurn(WebKitWebView* view, const orvane::PageRef& target, PageState& page,
                   const std::string& agent, long count, const std::string& folder) {
  Evaluate(view, "reset()");
  page = PageState{page.loop};
  std::string standard_error;
  // The program's own delivery, to the program's own page object: the page
  // is the primary page of an EventDelivery, which gathers the lines of each
  // read and holds the reading back while the page is behind.
  orvane::EventDelivery delivery([] { return std::string("http://bench.invalid"); });
  delivery.setPrimaryWeb(target);
  orvane::AgentTurns turns([&] { return std::optional<std::string>(agent); },
                           [&] { return folder; },
                           [&](const orvane::Event& event) {
                             if (event["type"] == "claudeDone")
                               standard_error = event["stderr"];
                             delivery.sendEvent(event);
                           });
  turns.setEventBatching([&] { delivery.openBatch(); }, [&] { delivery.closeBatch(); });
  turns.setBackPressure(
      [&] { return delivery.isBackedUp(); },
      [&](std::function<void()> resume) { delivery.whenDrained(std::move(resume)); });
  turns.runClaude({{"turn", "bench"}, {"args", {"--agent", std::to_string(count)}}});
  g_main_loop_run(page.loop);
  return Finish(page, FirstWriteFrom(standard_error), count);
}

// The limit: a bare pipe, one script evaluation per read.
Figure MeasurePipe(WebKitWebView* view, PageState& page, const std::string& agent, long count) {
  Evaluate(view, "reset()");
  page = PageState{page.loop};
  std::string count_text = std::to_string(count);
  const char* argv[] = {agent.c_str(), "--agent", count_text.c_str(), nullptr};
  GPid pid = 0;
  int out = -1, err = -1;
  if (!g_spawn_async_with_pipes(nullptr, const_cast<char**>(argv), nullptr,
                                G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &pid, nullptr, &out,
                                &err, nullptr))
    return {};
  struct Reader {
    WebKitWebView* view;
    int fd;
  } reader{view, out};
  g_unix_fd_add(
      out, G_IO_IN,
      [](gint fd, GIOCondition, gpointer data) -> gboolean {
        auto* r = static_cast<Reader*>(data);
        static std::vector<char> buffer(64 * 1024);
        ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n <= 0) {
          Evaluate(r->view, R"(window.panelEvent && window.panelEvent({"type":"end"}))");
          return G_SOURCE_REMOVE;
        }
        nlohmann::json chunk = {{"type", "chunk"}, {"data", std::string(buffer.data(), size_t(n))}};
        Evaluate(r->view, orvane::EventDelivery::EventScript(chunk));
        return G_SOURCE_CONTINUE;
      },
      &reader);
  g_main_loop_run(page.loop);
  std::string standard_error;
  char buffer[4096];
  ssize_t n;
  while ((n = read(err, buffer, sizeof buffer)) > 0)
    standard_error.append(buffer, size_t(n));
  close(out);
  close(err);
  waitpid(pid, nullptr, 0);
  g_spawn_close_pid(pid);
  return Finish(page, FirstWriteFrom(standard_error), count);
}

// The first three fields of /proc/loadavg: the machine is shared, and the
// figures mean little without it.
std::string LoadAverage() {
  gchar* text = nullptr;
  if (!g_file_get_contents("/proc/loadavg", &text, nullptr, nullptr))
    return "?";
  gchar** fields = g_strsplit(text, " ", 4);
  std::string load;
  for (int i = 0; i < 3 && fields[i]; ++i)
    load += (i ? " " : "") + std::string(fields[i]);
  g_strfreev(fields);
  g_free(text);
  return load;
}

} // namespace

int main(int argc, char** argv) {
  long count = 500000;
  int runs = 5;
  std::string agent;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--lines") == 0)
      count = std::atol(argv[i + 1]);
    else if (std::strcmp(argv[i], "--runs") == 0)
      runs = std::atoi(argv[i + 1]);
    else if (std::strcmp(argv[i], "--agent-binary") == 0)
      agent = argv[i + 1];
  }
  if (agent.empty()) {
    gchar* self = g_file_read_link("/proc/self/exe", nullptr);
    gchar* folder = g_path_get_dirname(self);
    agent = std::string(folder) + "/orvane_agent_bench";
    g_free(folder);
    g_free(self);
  }
  gtk_init(&argc, &argv);

  PageState page;
  page.loop = g_main_loop_new(nullptr, FALSE);
  WebKitUserContentManager* content = webkit_user_content_manager_new();
  g_signal_connect(
      content, "script-message-received::panel",
      G_CALLBACK(+[](WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
        auto* p = static_cast<PageState*>(data);
        gchar* text = jsc_value_to_json(webkit_javascript_result_get_js_value(result), 0);
        nlohmann::json message = nlohmann::json::parse(text ? text : "null", nullptr, false);
        g_free(text);
        if (!message.is_object())
          return;
        if (message["kind"] == "first") {
          p->first_seen = NowNs();
        } else if (message["kind"] == "done") {
          p->done_seen = NowNs();
          p->lines = message["lines"];
          p->ordered = message["ordered"];
          g_main_loop_quit(p->loop);
        }
      }),
      &page);
  webkit_user_content_manager_register_script_message_handler(content, "panel");
  GtkWidget* view = webkit_web_view_new_with_user_content_manager(content);
  // Made before the load, so that it sees the document commit.
  auto target = std::make_shared<orvane::WebPage>(WEBKIT_WEB_VIEW(view));
  GtkWidget* window = gtk_offscreen_window_new();
  gtk_container_add(GTK_CONTAINER(window), view);
  gtk_widget_show_all(window);
  g_signal_connect(view, "load-changed",
                   G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer data) {
                     auto* p = static_cast<PageState*>(data);
                     if (event == WEBKIT_LOAD_FINISHED) {
                       p->loaded = true;
                       g_main_loop_quit(p->loop);
                     }
                   }),
                   &page);
  webkit_web_view_load_html(WEBKIT_WEB_VIEW(view), kPage, "http://bench.invalid/");
  g_main_loop_run(page.loop);

  std::string load_before = LoadAverage();
  gchar* folder = g_dir_make_tmp("orvane-page-bench-XXXXXX", nullptr);
  std::vector<double> turn_rate, turn_first, pipe_rate, pipe_first;
  bool all_complete = true;
  for (int run = 1; run <= runs; ++run) {
    Figure pipe = MeasurePipe(WEBKIT_WEB_VIEW(view), page, agent, count);
    Figure turn = MeasureTurn(WEBKIT_WEB_VIEW(view), target, page, agent, count, folder);
    all_complete = all_complete && pipe.complete && turn.complete;
    printf("run %d: bare pipe to the page %.0f lines/s (first %.3f ms), turn to the page %.0f "
           "lines/s (first line %.3f ms)%s\n",
           run, pipe.lines_per_second, pipe.first_ms, turn.lines_per_second, turn.first_ms,
           pipe.complete && turn.complete ? "" : "  INCOMPLETE");
    pipe_rate.push_back(pipe.lines_per_second);
    pipe_first.push_back(pipe.first_ms);
    turn_rate.push_back(turn.lines_per_second);
    turn_first.push_back(turn.first_ms);
  }
  double limit = Median(pipe_rate), ours = Median(turn_rate);
  printf("\n%ld lines per run, %d runs, medians, as the page received them:\n", count, runs);
  printf("  bare pipe, one evaluation per read (limit): %.0f lines/s, first %.3f ms\n", limit,
         Median(pipe_first));
  printf("  claudeLine events:                          %.0f lines/s, first line %.3f ms\n", ours,
         Median(turn_first));
  printf("  events / limit: %.1f %% (goal >= 50 %%; first line goal <= 15 ms)\n",
         limit > 0 ? 100.0 * ours / limit : 0.0);
  printf("  every line received once and in order: %s\n", all_complete ? "yes" : "NO");
  printf("  load average before: %s, after: %s\n", load_before.c_str(), LoadAverage().c_str());
  g_rmdir(folder);
  g_free(folder);
  return all_complete ? 0 : 1;
}
