// The seat's CLIPBOARD and PRIMARY selection through the compositor's
// data-control protocol (zwlr_data_control_manager_v1, version 2): read any
// client's selection without focus, save every MIME type of the CLIPBOARD,
// and take the CLIPBOARD to offer saved bytes again.
//
// A DataControl has a Wayland connection of its own (never GDK's) and a
// thread of its own that runs it, both started at the first use: a GLib
// main context on which the connection's events, every pipe a read or a
// serve uses, and every deadline are sources. Nothing there blocks: a peer that never writes,
// never closes its pipe, sends endless data or never reads what we serve
// costs a bounded wait and a log line. The calling thread (the main thread)
// hands work over and keeps running its own thread-default main context
// until the answer comes back, as the X11 selection worker does.
#pragma once

#include "desktop/Selections.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// The budgets of one read or save of a selection. An owner may stay silent
// `idle_wait` at a time (each chunk it writes starts the wait anew); waits
// that run out take their length from `stall_budget`, which every read of
// one save shares; nothing goes on past `ceiling`.
struct DataControlLimits {
  std::chrono::milliseconds idle_wait{500};
  std::chrono::milliseconds stall_budget{1000};
  std::chrono::milliseconds ceiling{20000};
  // The most bytes one read or one save of the CLIPBOARD may hold; a MIME
  // type beyond is dropped.
  size_t max_bytes = size_t(64) << 20;
  // The most MIME types kept of one offer; further ones are ignored.
  size_t max_types = 512;
  // The longest MIME type name kept; longer names are ignored.
  size_t max_type_length = 255;
  // How long a client reading what we serve may leave its pipe full before
  // it is dropped, and how many such readers are served at once.
  std::chrono::milliseconds serve_idle_wait{5000};
  size_t max_serving = 64;
  // How long connecting to the compositor (the first round trips) may take.
  std::chrono::milliseconds connect_wait{2000};
};

enum class SelectionKind { kClipboard, kPrimary };

// What a save of the CLIPBOARD got, and why it is short when it is.
struct SavedSelection {
  ClipboardContents types;
  size_t offered = 0;     // data MIME types the owner listed
  bool cut_short = false; // the owner fell silent before every type was read
  bool too_large = false; // a type or the whole went beyond max_bytes
};

// MIME types that describe the selection or ask its owner to do something
// (X11 targets that XWayland passes on); they hold no data of their own.
bool IsMetaMimeType(const std::string& type);
// Whether a MIME type name from a peer is kept: not empty, not longer than
// `max_length`, no NUL and no control characters.
bool IsUsableMimeType(const std::string& type, size_t max_length);
// The offer's MIME types that hold text, best first: UTF-8 text before
// plain text before Latin-1.
std::vector<std::string> TextMimeTypesOf(const std::vector<std::string>& types);
// The bytes of a text MIME type as UTF-8 (Latin-1 for "STRING", UTF-8 with
// every bad sequence replaced for the rest).
std::string TextFromMimeBytes(const std::string& type, const std::string& bytes);

// Whether the compositor of WAYLAND_DISPLAY offers the data-control
// manager: its globals listed, bounded by `limit`, over GDK's connection
// when GDK runs on Wayland (then main thread only), otherwise over one short
// connection of its own. Once seen, the answer is kept for the life of the
// process.
bool DataControlOffered(std::chrono::milliseconds limit = std::chrono::milliseconds(1000));

class DataControl {
public:
  // The name of the connection's thread (as /proc/PID/task/TID/comm shows).
  static constexpr const char* kThreadName = "data-control";

  explicit DataControl(DataControlLimits limits = {});
  // Stops the thread: pending reads end empty, the served CLIPBOARD goes
  // with the connection.
  ~DataControl();
  DataControl(const DataControl&) = delete;
  DataControl& operator=(const DataControl&) = delete;

  // Connects (once; later calls only answer) on the thread and waits,
  // running the calling thread's main context, at most `connect_wait`.
  // False without a Wayland display, without the data-control manager or a
  // seat, or when the compositor did not answer in time.
  bool connect();
  bool connected() const;
  // Starts connecting on the thread and returns at once, so that the first
  // read finds the connection made (a compositor may take long over a new
  // client: KWin checksums the client's executable). A later connect()
  // waits for this attempt instead of making another. Once only.
  void startConnecting();

  // How often the CLIPBOARD changed hands since the connection started
  // (each selection event of the device, our own restores included).
  uint64_t clipboardChanges() const;
  // How often PRIMARY changed hands.
  uint64_t primaryChanges() const;

  // The MIME types the selection's owner offers now; nothing when nobody
  // owns it (or without a connection).
  std::optional<std::vector<std::string>> mimeTypes(SelectionKind kind);
  // The selection's bytes for one MIME type; nothing when nobody owns it,
  // the owner stays silent past the budget, or sends more than max_bytes.
  std::optional<std::string> read(SelectionKind kind, const std::string& type);
  // The selection as UTF-8 text (see TextMimeTypesOf); nothing when it
  // offers no text or gives none in time.
  std::optional<std::string> readText(SelectionKind kind);
  // Every data MIME type of the CLIPBOARD with its bytes, within one budget.
  // While our own restored CLIPBOARD is the selection, its bytes.
  SavedSelection saveClipboard();
  // Takes the CLIPBOARD with a source that offers exactly these MIME types
  // and serves their bytes, byte for byte, whenever a client asks, until
  // another client takes the CLIPBOARD or this object is destroyed. Empty
  // contents leave the CLIPBOARD with no owner. False without a connection.
  bool setClipboard(const ClipboardContents& contents);
  // Whether our source is still the CLIPBOARD (no other client took it).
  bool ownsClipboard() const;
  // The contents our source serves (empty when it does not own the CLIPBOARD).
  ClipboardContents servedClipboard() const;

private:
  struct Thread;
  // Shared with the calls waiting on it, which may outlive this object
  // (the main loop they run may destroy it).
  std::shared_ptr<Thread> thread_;
  DataControlLimits limits_;
  bool connect_started_ = false;
  bool connect_tried_ = false;
};

} // namespace orvane
