// For Orvane's tests only, never shipped: reports every window as the shell
// sees it (owner, frame, focus, stacking, workspace) and the CLIPBOARD, so
// that the end-to-end tests check placements and restores independently of
// the extension under test; and sets the scene as a user would (moves and
// focuses a window, copies something). It answers anyone on the test
// session's private bus.
'use strict';

const {Gio, GLib, Meta, St} = imports.gi;
const Main = imports.ui.main;

const INTERFACE = `
<node>
  <interface name="com.tarnwick.orvane.TestObserver">
    <method name="Windows">
      <arg name="json" type="s" direction="out"/>
    </method>
    <method name="Monitors">
      <arg name="json" type="s" direction="out"/>
    </method>
    <method name="Move">
      <arg name="id" type="t" direction="in"/>
      <arg name="x" type="i" direction="in"/>
      <arg name="y" type="i" direction="in"/>
      <arg name="ok" type="b" direction="out"/>
    </method>
    <method name="Activate">
      <arg name="id" type="t" direction="in"/>
      <arg name="ok" type="b" direction="out"/>
    </method>
    <method name="ClipboardTypes">
      <arg name="types" type="as" direction="out"/>
    </method>
    <method name="ClipboardContent">
      <arg name="mime" type="s" direction="in"/>
      <arg name="bytes" type="ay" direction="out"/>
    </method>
    <method name="SetPrimary">
      <arg name="text" type="s" direction="in"/>
    </method>
    <method name="SetClipboard">
      <arg name="mime" type="s" direction="in"/>
      <arg name="bytes" type="ay" direction="in"/>
    </method>
  </interface>
</node>`;

function describe(window) {
    const frame = window.get_frame_rect();
    const workspace = window.get_workspace();
    const active = global.workspace_manager.get_active_workspace();
    return {
        id: Number(window.get_id()),
        pid: window.get_pid(),
        title: window.get_title() || '',
        wm_class: window.get_wm_class() || '',
        x: frame.x,
        y: frame.y,
        width: frame.width,
        height: frame.height,
        monitor: window.get_monitor(),
        focused: window.has_focus(),
        above: window.is_above(),
        on_all_workspaces: window.is_on_all_workspaces(),
        on_active_workspace: window.is_on_all_workspaces() || workspace === active,
        minimized: window.minimized,
        hidden: window.is_hidden(),
        layer: window.get_layer(),
        type: window.get_window_type(),
        user_time: window.get_user_time(),
    };
}

function findWindow(id) {
    return global.display.list_all_windows().find(w => Number(w.get_id()) === Number(id)) || null;
}

class Observer {
    Move(id, x, y) {
        const window = findWindow(id);
        if (!window)
            return false;
        window.move_frame(true, x, y);
        return true;
    }

    Activate(id) {
        const window = findWindow(id);
        if (!window)
            return false;
        Main.activateWindow(window);
        return true;
    }

    ClipboardTypes() {
        return St.Clipboard.get_default().get_mimetypes(St.ClipboardType.CLIPBOARD);
    }

    ClipboardContentAsync([mime], invocation) {
        St.Clipboard.get_default().get_content(St.ClipboardType.CLIPBOARD, mime, (_c, bytes) => {
            const data = bytes ? bytes.get_data() || new Uint8Array(0) : new Uint8Array(0);
            invocation.return_value(new GLib.Variant('(ay)', [data]));
        });
    }

    SetPrimary(text) {
        St.Clipboard.get_default().set_text(St.ClipboardType.PRIMARY, text);
    }

    SetClipboard(mime, bytes) {
        St.Clipboard.get_default().set_content(St.ClipboardType.CLIPBOARD, mime,
            GLib.Bytes.new(bytes));
    }

    Windows() {
        const windows = global.display.list_all_windows()
            .sort((a, b) => a.get_stable_sequence() - b.get_stable_sequence())
            .map(describe);
        const top = global.display.sort_windows_by_stacking(global.display.list_all_windows())
            .map(w => Number(w.get_id()));
        return JSON.stringify({windows, stacking: top});
    }

    Monitors() {
        const monitors = [];
        for (let i = 0; i < global.display.get_n_monitors(); i++) {
            const r = global.display.get_monitor_geometry(i);
            monitors.push({x: r.x, y: r.y, width: r.width, height: r.height});
        }
        return JSON.stringify({monitors, primary: global.display.get_primary_monitor()});
    }
}

class Extension {
    enable() {
        this._exported = Gio.DBusExportedObject.wrapJSObject(INTERFACE, new Observer());
        this._exported.export(Gio.DBus.session, '/com/tarnwick/orvane/TestObserver');
    }

    disable() {
        this._exported.unexport();
        this._exported = null;
    }
}

/* exported init */
function init() {
    return new Extension();
}
