#include "bridge/EventDelivery.h"

#include "base/SiteAddress.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace orvane {

namespace {

// Compact UTF-8 JSON; a stray invalid byte is replaced rather than thrown.
std::string Json(const Event& event) {
  return event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// A batch: an array whose entries are events, or runs of "claudeLine"
// events of one turn written as [turn, the lines joined by "\n"] (a line
// never holds a line feed), or an event that is itself an array, wrapped as
// [event]. The handler is looked up for every event, as separate scripts
// would; once it is missing the rest are dropped, as they would be. An
// event whose handler throws does not keep the next ones from arriving; the
// error still shows. Each line's event is built with the keys in the order
// JSON text of the same event has them.
constexpr char kBatchHead[] =
    "(function(b){const d=e=>{if(!window.panelEvent)return false;"
    "try{window.panelEvent(e)}catch(error){setTimeout(()=>{throw error})}return true};"
    "for(const x of b){if(!Array.isArray(x)){if(!d(x))return}"
    "else if(x.length===1){if(!d(x[0]))return}"
    "else{const t=x[0];for(const line of x[1].split(\"\\n\"))"
    "if(!d({line:line,turn:t,type:\"claudeLine\"}))return}}})([";
constexpr char kBatchTail[] = "])";

// Whether any byte of the word is below 0x20, a quote, a backslash or
// above 0x7F: the bytes a JSON string may not hold as they are (or, above
// 0x7F, that start a character of more than one byte).
inline bool NeedsCare(uint64_t word) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  auto has_zero = [](uint64_t v) { return (v - kOnes) & ~v & kHigh; };
  uint64_t below_space = (word - kOnes * 0x20) & ~word & kHigh;
  return (below_space | has_zero(word ^ (kOnes * '"')) | has_zero(word ^ (kOnes * '\\')) |
          (word & kHigh)) != 0;
}

// Appends valid UTF-8 text as the inside of a JSON string, escaped exactly
// as the JSON library writes it: quote, backslash and control characters
// escaped, everything else as it is.
void AppendEscaped(std::string& out, std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end) {
    const char* run = p;
    while (end - p >= 8) {
      uint64_t word;
      std::memcpy(&word, p, 8);
      if (NeedsCare(word))
        break;
      p += 8;
    }
    while (p < end) {
      unsigned char c = static_cast<unsigned char>(*p);
      if (c < 0x20 || c == '"' || c == '\\')
        break;
      ++p;
    }
    out.append(run, size_t(p - run));
    if (p == end)
      break;
    unsigned char c = static_cast<unsigned char>(*p++);
    switch (c) {
    case '"':
      out.append("\\\"");
      break;
    case '\\':
      out.append("\\\\");
      break;
    case '\b':
      out.append("\\b");
      break;
    case '\f':
      out.append("\\f");
      break;
    case '\n':
      out.append("\\n");
      break;
    case '\r':
      out.append("\\r");
      break;
    case '\t':
      out.append("\\t");
      break;
    default: {
      char escape[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(escape, sizeof escape);
    }
    }
  }
}

// The "turn" and "line" of an event that is exactly {"type": "claudeLine",
// "turn": string, "line": string}, with a line that can travel in a run:
// valid UTF-8 (else the JSON library's replacement applies) and without a
// line feed (the run's separator).
struct LineEvent {
  const std::string* turn = nullptr;
  const std::string* line = nullptr;
};
bool AsLineEvent(const Event& event, LineEvent& found) {
  if (!event.is_object() || event.size() != 3)
    return false;
  auto type = event.find("type");
  auto turn = event.find("turn");
  auto line = event.find("line");
  if (type == event.end() || turn == event.end() || line == event.end() || !type->is_string() ||
      !turn->is_string() || !line->is_string() ||
      type->get_ref<const std::string&>() != "claudeLine")
    return false;
  const auto& text = line->get_ref<const std::string&>();
  if (text.find('\n') != std::string::npos || !IsValidUtf8(text))
    return false;
  found.turn = &turn->get_ref<const std::string&>();
  found.line = &text;
  return true;
}

constexpr size_t kLoggedAddressLength = 200;

} // namespace

// Scripts handed to pages and not yet run, and who waits for them to be.
// Shared with the pages' completion calls, which may come after the
// delivery is gone.
struct EventDelivery::Flow {
  struct InFlight {
    WeakPageRef page;
    size_t bytes = 0;
  };
  size_t limit = 0;
  WeakPageRef primary;
  std::vector<InFlight> in_flight;
  std::vector<std::function<void()>> waiting;

  static bool Same(const WeakPageRef& a, const WeakPageRef& b) {
    return !a.owner_before(b) && !b.owner_before(a);
  }
  InFlight* find(const WeakPageRef& page) {
    for (InFlight& entry : in_flight)
      if (Same(entry.page, page))
        return &entry;
    return nullptr;
  }
  bool backedUp() {
    // Pages that are gone hold nothing back.
    std::erase_if(in_flight, [](const InFlight& entry) { return entry.page.expired(); });
    if (primary.expired())
      return false;
    InFlight* entry = find(primary);
    return entry && entry->bytes > limit;
  }
  void add(const PageRef& page, size_t bytes) {
    if (InFlight* entry = find(page))
      entry->bytes += bytes;
    else
      in_flight.push_back({page, bytes});
  }
  void release(const WeakPageRef& page, size_t bytes) {
    if (InFlight* entry = find(page))
      entry->bytes -= std::min(entry->bytes, bytes);
    wake();
  }
  void wake() {
    if (waiting.empty() || backedUp())
      return;
    std::vector<std::function<void()>> resumed;
    resumed.swap(waiting);
    for (auto& resume : resumed)
      resume();
  }
};

// The script being gathered for one page in the open batch.
struct EventDelivery::Segment {
  PageRef page;
  bool trusted = false;
  std::string script;
  size_t events = 0;
  // The open run of lines, if any: its turn, and that turn as JSON text.
  bool in_run = false;
  std::string run_turn;
  std::string run_turn_json;

  void reset() {
    script.clear();
    events = 0;
    in_run = false;
  }
  void closeRun() {
    if (in_run)
      script.append("\"]");
    in_run = false;
  }
  void startEntry() {
    if (script.empty())
      script.append(kBatchHead);
    else
      script.push_back(',');
  }
  void addLine(const LineEvent& event) {
    if (in_run && run_turn == *event.turn) {
      script.append("\\n");
    } else {
      closeRun();
      startEntry();
      run_turn = *event.turn;
      run_turn_json = Json(run_turn);
      script.push_back('[');
      script.append(run_turn_json);
      script.append(",\"");
      in_run = true;
    }
    AppendEscaped(script, *event.line);
    ++events;
  }
  void addJson(const std::string& json, bool is_array) {
    closeRun();
    startEntry();
    if (is_array)
      script.push_back('[');
    script.append(json);
    if (is_array)
      script.push_back(']');
    ++events;
  }
  // The finished script, leaving the segment empty.
  std::string take() {
    closeRun();
    script.append(kBatchTail);
    std::string done;
    done.swap(script);
    reset();
    return done;
  }
};

EventDelivery::EventDelivery(std::function<std::string()> site_address, EventDeliveryLimits limits)
    : site_address_(std::move(site_address)), limits_(limits), flow_(std::make_shared<Flow>()) {
  flow_->limit = limits_.in_flight_bytes;
}

EventDelivery::~EventDelivery() = default;

void EventDelivery::setPrimaryWeb(const PageRef& page) {
  primary_web_ = page;
  flow_->primary = page;
  flow_->wake();
}

bool EventDelivery::holdsSiteDocument(const Page& page) const {
  return HasSiteOrigin(page.committedAddress(), site_address_());
}

void EventDelivery::pageCommitted(const PageRef& page) {
  if (!page || page != primary_web_.lock() || holdsSiteDocument(*page))
    return;
  primary_web_.reset();
  flow_->primary.reset();
  SparLog("bridge: the primary page left the site for %@ — events wait for the next hello",
          ShortenedText(page->committedAddress(), kLoggedAddressLength));
  flow_->wake();
}

std::string EventDelivery::EventScript(const Event& event) {
  return "window.panelEvent && window.panelEvent(" + Json(event) + ")";
}

bool EventDelivery::isBackedUp() const {
  return flow_->backedUp();
}

void EventDelivery::whenDrained(std::function<void()> resume) {
  flow_->waiting.push_back(std::move(resume));
  flow_->wake();
}

void EventDelivery::hand(const PageRef& target, std::string script) {
  size_t bytes = script.size();
  flow_->add(target, bytes);
  std::weak_ptr<Flow> flow = flow_;
  WeakPageRef page = target;
  target->evaluateScriptThen(script, [flow, page, bytes] {
    if (auto alive = flow.lock())
      alive->release(page, bytes);
  });
}

EventDelivery::Segment& EventDelivery::segmentFor(const PageRef& target) {
  for (auto& segment : batch_)
    if (segment->page == target)
      return *segment;
  auto segment = std::make_unique<Segment>();
  segment->page = target;
  segment->trusted = target && holdsSiteDocument(*target);
  batch_.push_back(std::move(segment));
  return *batch_.back();
}

bool EventDelivery::trusted(const PageRef& target) {
  if (!target)
    return false;
  // Within a batch the document cannot change (a commit is reported on a
  // later turn of the main loop), so each page is looked at once.
  if (batch_depth_ > 0)
    return segmentFor(target).trusted;
  return holdsSiteDocument(*target);
}

void EventDelivery::flush(Segment& segment) {
  if (segment.events > 0)
    hand(segment.page, segment.take());
}

void EventDelivery::flushAll() {
  std::vector<std::unique_ptr<Segment>> batch;
  batch.swap(batch_);
  for (auto& segment : batch)
    flush(*segment);
}

void EventDelivery::closeBatch() {
  if (batch_depth_ == 0 || --batch_depth_ > 0)
    return;
  flushAll();
}

void EventDelivery::sendEvent(const Event& event) {
  PageRef primary = primary_web_.lock();
  // A commit not reported (yet) still counts: the document decides. In a
  // batch the page's document was looked at with its first event.
  if (primary && !trusted(primary))
    pageCommitted(primary);
  sendEvent(event, primary_web_.lock());
}

void EventDelivery::sendEvent(const Event& event, const PageRef& target) {
  if (trusted(target)) {
    if (batch_depth_ == 0) {
      hand(target, EventScript(event));
      return;
    }
    Segment& segment = segmentFor(target);
    LineEvent line;
    if (AsLineEvent(event, line)) {
      // A script over the limit goes now; a line larger than the limit
      // goes in a script of its own.
      if (segment.events > 0 && segment.script.size() + line.line->size() > limits_.script_bytes)
        flush(segment);
      segment.addLine(line);
    } else {
      std::string json = Json(event);
      if (segment.events > 0 && segment.script.size() + json.size() > limits_.script_bytes)
        flush(segment);
      segment.addJson(json, event.is_array());
    }
    if (segment.script.size() >= limits_.script_bytes)
      flush(segment);
    return;
  }
  queued_events_.push_back(event);
  LogArg type(nullptr);
  if (event.is_object()) {
    auto found = event.find("type");
    if (found != event.end())
      type = found->is_string() ? LogArg(found->get<std::string>()) : LogArg(found->dump());
  }
  SparLog("event %@ queued (no page yet)", type);
}

std::vector<Event> EventDelivery::takeQueuedEvents() {
  std::vector<Event> taken;
  taken.swap(queued_events_);
  return taken;
}

} // namespace orvane
