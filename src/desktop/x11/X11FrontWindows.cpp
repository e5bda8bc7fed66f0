#include "desktop/x11/X11FrontWindows.h"

#include "base/Text.h"
#include "desktop/session/GdkScreens.h"
#include "desktop/x11/XClientIds.h"

#include <X11/Xatom.h>
#include <X11/Xlib-xcb.h>
#include <X11/Xutil.h>
#include <cstdlib>
#include <cstring>
#include <gdk/gdkx.h>
#include <vector>
#include <xcb/res.h>
#include <xcb/xcb.h>

namespace orvane {

namespace {

// One reply of the front window's batch, freed with it. `failed` tells an
// error (the window gone, a hostile id) from a request that was not sent.
template <typename Reply> struct Answer {
  Reply* reply = nullptr;
  bool failed = false;
  Answer() = default;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() { std::free(reply); }
};

template <typename Reply, typename Cookie, typename Take>
void Collect(xcb_connection_t* connection, Cookie cookie, Take take, Answer<Reply>& answer) {
  xcb_generic_error_t* error = nullptr;
  answer.reply = take(connection, cookie, &error);
  if (error || !answer.reply)
    answer.failed = true;
  std::free(error);
}

// Which kinds of id an XRes answer carries (its client-and-mask header,
// the value's first field; a standard-layout struct starts at its first
// member).
uint32_t IdMaskOf(const xcb_res_client_id_value_t* value) {
  return reinterpret_cast<const xcb_res_client_id_spec_t*>(value)->mask;
}

// The property's items when it has the given type and format.
const void* PropertyItems(const xcb_get_property_reply_t* reply, xcb_atom_t type, uint8_t format,
                          size_t& count) {
  count = 0;
  if (!reply || reply->type != type || reply->format != format)
    return nullptr;
  count = size_t(xcb_get_property_value_length(reply)) / (format / 8);
  return xcb_get_property_value(reply);
}

std::optional<std::vector<long>> CardinalItems(const xcb_get_property_reply_t* reply,
                                               xcb_atom_t type) {
  size_t count = 0;
  const auto* values = static_cast<const uint32_t*>(PropertyItems(reply, type, 32, count));
  if (!values)
    return std::nullopt;
  return std::vector<long>(values, values + count);
}

// Four frame extents (left, right, top, bottom), when they are sane.
std::optional<std::vector<long>> Extents(const xcb_get_property_reply_t* reply) {
  std::optional<std::vector<long>> extents = CardinalItems(reply, XCB_ATOM_CARDINAL);
  if (!extents || extents->size() != 4)
    return std::nullopt;
  for (long value : *extents)
    if (value < 0 || value > 10000)
      return std::nullopt;
  return extents;
}

// WM_CLASS: the instance, a NUL, the class (each up to its NUL, or to the
// end of the data).
void ClassHint(const xcb_get_property_reply_t* reply, FrontWindow& found) {
  size_t count = 0;
  const auto* data = static_cast<const char*>(PropertyItems(reply, XCB_ATOM_STRING, 8, count));
  if (!data)
    return;
  std::string all(data, count);
  size_t end = all.find('\0');
  found.wm_instance = all.substr(0, end);
  if (end != std::string::npos) {
    std::string rest = all.substr(end + 1);
    found.wm_class = rest.substr(0, rest.find('\0'));
  }
}

// WM_NAME in whatever encoding it has (STRING, COMPOUND_TEXT, UTF8_STRING),
// converted by Xlib without a request.
std::string LegacyTitle(Display* display, const xcb_get_property_reply_t* reply) {
  std::string title;
  if (!reply || reply->type == XCB_ATOM_NONE ||
      (reply->format != 8 && reply->format != 16 && reply->format != 32))
    return title;
  int length = xcb_get_property_value_length(reply);
  // Xlib's text conversion expects the items followed by a NUL.
  std::vector<unsigned char> value(size_t(length) + 1, 0);
  std::memcpy(value.data(), xcb_get_property_value(reply), size_t(length));
  XTextProperty property{};
  property.value = value.data();
  property.encoding = reply->type;
  property.format = reply->format;
  property.nitems = (unsigned long)(length) / (reply->format / 8);
  char** list = nullptr;
  int count = 0;
  if (Xutf8TextPropertyToTextList(display, &property, &list, &count) >= Success && list &&
      count > 0 && list[0])
    title = ValidUtf8(list[0]);
  if (list)
    XFreeStringList(list);
  return title;
}

// The top-level ancestor the window manager reparented the client into
// (the window's own parent is known from the batch); the client itself when
// it is a child of the root. Nothing when the window is gone.
std::optional<xcb_window_t> TopLevel(xcb_connection_t* connection, xcb_window_t window,
                                     xcb_window_t root, xcb_window_t parent) {
  xcb_window_t top = window;
  for (int depth = 0; depth < 32; ++depth) {
    if (parent == root || parent == XCB_WINDOW_NONE)
      break;
    top = parent;
    Answer<xcb_query_tree_reply_t> tree;
    Collect(connection, xcb_query_tree(connection, top), xcb_query_tree_reply, tree);
    if (tree.failed)
      return std::nullopt;
    parent = tree.reply->parent;
  }
  return top;
}

} // namespace

// Two round trips: the active window, then everything about it at once.
std::optional<FrontWindow> X11FrontWindows::frontWindow() const {
  GdkDisplay* gdk_display = gdk_display_get_default();
  if (!gdk_display || !GDK_IS_X11_DISPLAY(gdk_display))
    return std::nullopt;
  // GDK checks the window manager's _NET_SUPPORTING_WM_CHECK window first,
  // so a value left behind by a window manager that is gone does not count.
  if (!gdk_x11_screen_supports_net_wm_hint(gdk_display_get_default_screen(gdk_display),
                                           gdk_atom_intern_static_string("_NET_ACTIVE_WINDOW")))
    return std::nullopt;
  Display* display = GDK_DISPLAY_XDISPLAY(gdk_display);
  xcb_connection_t* connection = XGetXCBConnection(display);
  xcb_window_t root = xcb_window_t(DefaultRootWindow(display));
  // GDK keeps the atoms of its display: asked for once.
  auto atom = [gdk_display](const char* name) {
    return xcb_atom_t(gdk_x11_get_xatom_by_name_for_display(gdk_display, name));
  };
  xcb_atom_t utf8 = atom("UTF8_STRING");
  // Asked once per connection; a server without XRes 1.2 leaves _NET_WM_PID.
  gdk_x11_display_error_trap_push(gdk_display);
  bool client_ids = ClientIdsSupported(display);
  gdk_x11_display_error_trap_pop_ignored(gdk_display);

  // Replies are taken with their errors: the window may vanish between any
  // two requests, and an error fails the read instead of reaching GDK.
  Answer<xcb_get_property_reply_t> active;
  Collect(connection,
          xcb_get_property(connection, 0, root, atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_WINDOW, 0, 1),
          xcb_get_property_reply, active);
  std::optional<std::vector<long>> id = CardinalItems(active.reply, XCB_ATOM_WINDOW);
  if (active.failed || !id || id->size() != 1 || (*id)[0] == 0)
    return std::nullopt;
  auto window = xcb_window_t((*id)[0]);

  auto property = [&](xcb_atom_t name, xcb_atom_t type, uint32_t longs) {
    return xcb_get_property(connection, 0, window, name, type, 0, longs);
  };
  xcb_res_client_id_spec_t wanted{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
  std::optional<xcb_res_query_client_ids_cookie_t> ids_cookie;
  if (client_ids)
    ids_cookie = xcb_res_query_client_ids(connection, 1, &wanted);
  xcb_get_geometry_cookie_t geometry_cookie = xcb_get_geometry(connection, window);
  xcb_translate_coordinates_cookie_t position_cookie =
      xcb_translate_coordinates(connection, window, root, 0, 0);
  xcb_query_tree_cookie_t tree_cookie = xcb_query_tree(connection, window);
  xcb_get_property_cookie_t pid_cookie = property(atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 1);
  xcb_get_property_cookie_t class_cookie = property(XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8192);
  xcb_get_property_cookie_t name_cookie = property(atom("_NET_WM_NAME"), utf8, 4096);
  xcb_get_property_cookie_t legacy_cookie = property(XCB_ATOM_WM_NAME, XCB_ATOM_ANY, 4096);
  xcb_get_property_cookie_t wm_extents_cookie =
      property(atom("_NET_FRAME_EXTENTS"), XCB_ATOM_CARDINAL, 4);
  xcb_get_property_cookie_t client_extents_cookie =
      property(atom("_GTK_FRAME_EXTENTS"), XCB_ATOM_CARDINAL, 4);

  // Every reply is taken, so none is left behind on the connection.
  Answer<xcb_res_query_client_ids_reply_t> ids;
  if (ids_cookie)
    Collect(connection, *ids_cookie, xcb_res_query_client_ids_reply, ids);
  Answer<xcb_get_geometry_reply_t> geometry;
  Collect(connection, geometry_cookie, xcb_get_geometry_reply, geometry);
  Answer<xcb_translate_coordinates_reply_t> position;
  Collect(connection, position_cookie, xcb_translate_coordinates_reply, position);
  Answer<xcb_query_tree_reply_t> tree;
  Collect(connection, tree_cookie, xcb_query_tree_reply, tree);
  Answer<xcb_get_property_reply_t> pid, wm_class, name, legacy, wm_extents, client_extents;
  Collect(connection, pid_cookie, xcb_get_property_reply, pid);
  Collect(connection, class_cookie, xcb_get_property_reply, wm_class);
  Collect(connection, name_cookie, xcb_get_property_reply, name);
  Collect(connection, legacy_cookie, xcb_get_property_reply, legacy);
  Collect(connection, wm_extents_cookie, xcb_get_property_reply, wm_extents);
  Collect(connection, client_extents_cookie, xcb_get_property_reply, client_extents);
  if (ids.failed || geometry.failed || position.failed || tree.failed || pid.failed ||
      wm_class.failed || name.failed || legacy.failed || wm_extents.failed || client_extents.failed)
    return std::nullopt;

  FrontWindow found;
  found.id = window;
  if (ids.reply) {
    for (xcb_res_client_id_value_iterator_t it = xcb_res_query_client_ids_ids_iterator(ids.reply);
         it.rem > 0; xcb_res_client_id_value_next(&it)) {
      if ((IdMaskOf(it.data) & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) &&
          xcb_res_client_id_value_value_length(it.data) == 1) {
        uint32_t value = *xcb_res_client_id_value_value(it.data);
        if (value > 0 && value < (1U << 31))
          found.pid = int(value);
      }
    }
  }
  if (found.pid <= 0) {
    std::optional<std::vector<long>> items = CardinalItems(pid.reply, XCB_ATOM_CARDINAL);
    found.pid = items && items->size() == 1 && (*items)[0] > 0 && (*items)[0] < (1L << 31)
                    ? int((*items)[0])
                    : 0;
  }
  ClassHint(wm_class.reply, found);
  size_t length = 0;
  if (const auto* text = static_cast<const char*>(PropertyItems(name.reply, utf8, 8, length)))
    found.title = ValidUtf8({text, length});
  if (found.title.empty())
    found.title = LegacyTitle(display, legacy.reply);

  // The outer frame in root coordinates: the client area grown by the frame
  // the window manager draws (_NET_FRAME_EXTENTS) and shrunk by the shadow a
  // client draws itself (_GTK_FRAME_EXTENTS); without extents, the top-level
  // ancestor the window manager reparented the client into.
  Rect frame{double(position.reply->dst_x), double(position.reply->dst_y),
             double(geometry.reply->width), double(geometry.reply->height)};
  std::optional<std::vector<long>> wm = Extents(wm_extents.reply);
  std::optional<std::vector<long>> client = Extents(client_extents.reply);
  if (wm || client) {
    auto grow = [&frame](const std::vector<long>& e, double sign) {
      frame.x -= sign * double(e[0]);
      frame.y -= sign * double(e[2]);
      frame.width += sign * double(e[0] + e[1]);
      frame.height += sign * double(e[2] + e[3]);
    };
    if (wm)
      grow(*wm, 1);
    if (client)
      grow(*client, -1);
  } else {
    std::optional<xcb_window_t> top = TopLevel(connection, window, root, tree.reply->parent);
    if (!top)
      return std::nullopt;
    if (*top != window) {
      Answer<xcb_get_geometry_reply_t> outer;
      Collect(connection, xcb_get_geometry(connection, *top), xcb_get_geometry_reply, outer);
      if (outer.failed)
        return std::nullopt;
      frame = {double(outer.reply->x), double(outer.reply->y),
               double(outer.reply->width + 2 * outer.reply->border_width),
               double(outer.reply->height + 2 * outer.reply->border_width)};
    }
  }
  if (frame.width > 0 && frame.height > 0)
    found.frame = DesktopRectFromTopLeft(frame, PrimaryMonitorTopLeft());
  return found;
}

} // namespace orvane
