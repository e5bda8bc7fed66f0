// The body of Orvane's GNOME Shell extension, shared by both of its forms.
//
// This file has no imports of its own: the build puts it between a head that
// brings in Gio, GLib, Meta, Shell, St, Clutter and Main (with `imports.*`
// for GNOME 43 and 44, with `import` for GNOME 45 and later) and a tail that
// hands OrvaneShellService to the shell in the form that version expects.
//
// What it does: exports com.tarnwick.orvane.Shell (com.tarnwick.orvane.Shell.xml
// beside this file) on the shell's session-bus connection and answers only the
// process that owns the bus name com.tarnwick.orvane. Everything any caller
// sends is checked before use.

const ORVANE_BUS_NAME = 'com.tarnwick.orvane';
const ORVANE_OBJECT_PATH = '/com/tarnwick/orvane/Shell';
const ORVANE_INTERFACE = 'com.tarnwick.orvane.Shell';
const ORVANE_NOT_ALLOWED = 'com.tarnwick.orvane.Shell.Error.NotAllowed';
const ORVANE_INTERFACE_VERSION = 2;

const HOTKEY_NAMES = ['summon', 'quote', 'friend-quote', 'talk'];
const COPY_CHORDS = new Map([['ctrl-c', false], ['ctrl-shift-c', true]]); // name -> with Shift

const MOVE_RESIZE_WAIT_MS = 1000;
const FIRST_SHOW_WAIT_MS = 2000;
const MODIFIER_WAIT_MS = 500;
const MODIFIER_POLL_MS = 20;
const TEXT_READ_WAIT_MS = 2000;
const CLIPBOARD_READ_WAIT_MS = 1500;
const CLIPBOARD_SAVE_BUDGET_MS = 5000;
const MAX_CLIPBOARD_TYPES = 64;
const MAX_CLIPBOARD_TYPE_BYTES = 32 * 1024 * 1024;
const MAX_CLIPBOARD_TOTAL_BYTES = 64 * 1024 * 1024;
const MAX_TEXT_CHARS = 32 * 1024 * 1024;
const MAX_MIME_TYPE_LENGTH = 255;
const MAX_COORDINATE = 1000000;
const MAX_SIZE = 100000;
const MAX_LOGGED_REFUSALS = 64;

// The one type GNOME 43 can put back, best first: the shell's memory
// selection source offers a single MIME type, and an extension cannot
// provide a source of its own (GJS cannot implement its read_async).
const TEXT_TYPES = ['text/plain;charset=utf-8', 'UTF8_STRING', 'text/plain', 'STRING', 'TEXT'];

// A MIME type as the selection carries it: printable ASCII, no spaces.
const MIME_TYPE_PATTERN = /^[\x21-\x7e]+$/;

const MODIFIER_MASK_NAMES = ['SHIFT_MASK', 'CONTROL_MASK', 'MOD1_MASK', 'MOD2_MASK', 'MOD3_MASK',
    'MOD4_MASK', 'MOD5_MASK', 'SUPER_MASK', 'HYPER_MASK', 'META_MASK'];

function orvaneLog(message) {
    log(`Orvane: ${message}`);
}

function isWindowId(id) {
    // 't' arrives as a Number (or a BigInt for values past 2^53, which no
    // window id reaches).
    return typeof id === 'number' && Number.isSafeInteger(id) && id > 0;
}

function isCoordinate(value) {
    return Number.isInteger(value) && Math.abs(value) <= MAX_COORDINATE;
}

function isSize(value) {
    return Number.isInteger(value) && value > 0 && value <= MAX_SIZE;
}

function isMimeType(value) {
    return typeof value === 'string' && value.length > 0 &&
        value.length <= MAX_MIME_TYPE_LENGTH && MIME_TYPE_PATTERN.test(value);
}

function byteLength(data) {
    if (data instanceof Uint8Array)
        return data.length;
    if (data instanceof GLib.Bytes)
        return data.get_size();
    return -1;
}

// The one MIME type of `types` that GNOME 43 restores.
function bestRestorableType(types) {
    for (const wanted of TEXT_TYPES) {
        if (types.includes(wanted))
            return wanted;
    }
    const text = types.find(t => t.startsWith('text/'));
    if (text)
        return text;
    const image = types.find(t => t.startsWith('image/'));
    return image ?? types[0];
}

class OrvaneShellService {
    // deps: {path, settings, uuid} — the extension's folder and its
    // GSettings (org.gnome.shell.extensions.orvane).
    constructor(deps) {
        this._path = deps.path;
        this._settings = deps.settings;
        this._owner = null;
        this._nameWatch = 0;
        this._exported = null;
        // Hotkey name -> the shell's action id of its grabbed accelerator.
        this._bound = new Map();
        this._acceleratorActivated = 0;
        this._hotkeySettingsChanged = 0;
        this._clipboardChanges = 0;
        this._selectionChanged = 0;
        this._layoutSignals = [];
        this._virtualKeyboard = null;
        this._refusedSenders = new Set();
        this._timeouts = new Set();
        this._pendingWaits = new Set();
    }

    enable() {
        const [ok, bytes] = GLib.file_get_contents(
            GLib.build_filenamev([this._path, 'com.tarnwick.orvane.Shell.xml']));
        if (!ok)
            throw new Error('cannot read com.tarnwick.orvane.Shell.xml');
        const xml = new TextDecoder().decode(bytes);
        this._exported = Gio.DBusExportedObject.wrapJSObject(xml, this);
        this._exported.export(Gio.DBus.session, ORVANE_OBJECT_PATH);

        this._selectionChanged = global.display.get_selection().connect('owner-changed',
            (_selection, type) => {
                if (type === Meta.SelectionType.SELECTION_CLIPBOARD)
                    this._clipboardChanges++;
            });

        this._acceleratorActivated = global.display.connect('accelerator-activated',
            (_display, action, _device, timestamp) => this._hotkeyPressed(action, timestamp));
        // A hotkey changed in the settings is grabbed anew while it is bound.
        this._hotkeySettingsChanged = this._settings.connect('changed', (_settings, name) => {
            if (!this._bound.has(name))
                return;
            this._ungrab(name);
            this._grab(name);
        });

        // Whatever changes Monitors' answer is told to the owner, which
        // keeps that answer until then.
        for (const [object, signal] of [[Main.layoutManager, 'monitors-changed'],
            [global.display, 'workareas-changed'],
            [global.workspace_manager, 'active-workspace-changed']]) {
            this._layoutSignals.push([object,
                object.connect(signal, () => this._tellOwner('MonitorsChanged', null))]);
        }

        this._nameWatch = Gio.bus_watch_name_on_connection(Gio.DBus.session, ORVANE_BUS_NAME,
            Gio.BusNameWatcherFlags.NONE,
            (_connection, _name, owner) => {
                this._owner = owner;
            },
            () => {
                this._owner = null;
                this._unbindHotkeys();
            });
    }

    disable() {
        if (this._nameWatch) {
            Gio.bus_unwatch_name(this._nameWatch);
            this._nameWatch = 0;
        }
        this._owner = null;
        this._unbindHotkeys();
        if (this._acceleratorActivated) {
            global.display.disconnect(this._acceleratorActivated);
            this._acceleratorActivated = 0;
        }
        if (this._hotkeySettingsChanged) {
            this._settings.disconnect(this._hotkeySettingsChanged);
            this._hotkeySettingsChanged = 0;
        }
        for (const [object, id] of this._layoutSignals)
            object.disconnect(id);
        this._layoutSignals = [];
        if (this._selectionChanged) {
            global.display.get_selection().disconnect(this._selectionChanged);
            this._selectionChanged = 0;
        }
        if (this._exported) {
            this._exported.unexport();
            this._exported = null;
        }
        for (const id of this._timeouts)
            GLib.source_remove(id);
        this._timeouts.clear();
        for (const cancel of this._pendingWaits)
            cancel();
        this._pendingWaits.clear();
        if (this._virtualKeyboard) {
            this._virtualKeyboard.run_dispose();
            this._virtualKeyboard = null;
        }
    }

    // -- who may call

    // Runs `handler` for the owner of com.tarnwick.orvane and refuses anyone
    // else. The name watcher's owner may lag behind a new owner's first
    // call, so a sender that is not the known owner is checked with the bus.
    _guard(invocation, handler) {
        const sender = invocation.get_sender();
        const run = () => {
            try {
                handler();
            } catch (e) {
                orvaneLog(`${invocation.get_method_name()} failed: ${e}`);
                invocation.return_dbus_error('org.freedesktop.DBus.Error.Failed',
                    'the shell could not do this');
            }
        };
        if (sender && sender === this._owner) {
            run();
            return;
        }
        Gio.DBus.session.call('org.freedesktop.DBus', '/org/freedesktop/DBus',
            'org.freedesktop.DBus', 'GetNameOwner', new GLib.Variant('(s)', [ORVANE_BUS_NAME]),
            new GLib.VariantType('(s)'), Gio.DBusCallFlags.NONE, 2000, null,
            (connection, result) => {
                let owner = null;
                try {
                    [owner] = connection.call_finish(result).deepUnpack();
                } catch (e) {
                    owner = null;
                }
                if (sender && owner === sender) {
                    this._owner = owner;
                    run();
                    return;
                }
                this._refuse(invocation, sender);
            });
    }

    _refuse(invocation, sender) {
        const method = invocation.get_method_name();
        if (!this._refusedSenders.has(sender)) {
            if (this._refusedSenders.size < MAX_LOGGED_REFUSALS) {
                this._refusedSenders.add(sender);
                orvaneLog(`refused ${method} from ${sender}: it does not own ${ORVANE_BUS_NAME}`);
            } else if (this._refusedSenders.size === MAX_LOGGED_REFUSALS) {
                this._refusedSenders.add('');
                orvaneLog('refused calls from more callers; not logging them any more');
            }
        }
        invocation.return_dbus_error(ORVANE_NOT_ALLOWED,
            `only the owner of ${ORVANE_BUS_NAME} may call ${method}`);
    }

    // A named timeout (a profiler or debugger then says who woke the shell
    // up), removed by disable() if it is still pending.
    _timeout(name, ms, callback) {
        const id = GLib.timeout_add(GLib.PRIORITY_DEFAULT, ms, () => {
            const result = callback();
            if (result !== GLib.SOURCE_CONTINUE)
                this._timeouts.delete(id);
            return result;
        });
        GLib.Source.set_name_by_id(id, `[orvane] ${name}`);
        this._timeouts.add(id);
        return id;
    }

    _clearTimeout(id) {
        if (this._timeouts.delete(id))
            GLib.source_remove(id);
    }

    // -- windows

    _windows() {
        return global.get_window_actors()
            .map(actor => actor.get_meta_window())
            .filter(w => w && !w.is_override_redirect())
            .sort((a, b) => a.get_stable_sequence() - b.get_stable_sequence());
    }

    _windowById(id) {
        if (!isWindowId(id))
            return null;
        return this._windows().find(w => w.get_id() === id) ?? null;
    }

    _windowVariant(window) {
        if (!window)
            return new GLib.Variant('a{sv}', {});
        const frame = window.get_frame_rect();
        const app = Shell.WindowTracker.get_default().get_window_app(window);
        const appId = app && !app.is_window_backed() ? app.get_id() ?? '' : '';
        const workspace = global.workspace_manager.get_active_workspace();
        const maximized = (window.get_maximized() & Meta.MaximizeFlags.BOTH) === Meta.MaximizeFlags.BOTH;
        return new GLib.Variant('a{sv}', {
            id: GLib.Variant.new_uint64(window.get_id()),
            pid: GLib.Variant.new_int32(Math.max(0, window.get_pid())),
            wm_class: GLib.Variant.new_string(window.get_wm_class() ?? ''),
            // The shell repeats a Wayland client's app id as its instance;
            // only X11 clients have a WM_CLASS instance of their own.
            wm_instance: GLib.Variant.new_string(
                window.get_client_type() === Meta.WindowClientType.WAYLAND
                    ? '' : window.get_wm_class_instance() ?? ''),
            app_id: GLib.Variant.new_string(appId),
            title: GLib.Variant.new_string(window.get_title() ?? ''),
            x: GLib.Variant.new_int32(frame.x),
            y: GLib.Variant.new_int32(frame.y),
            width: GLib.Variant.new_int32(frame.width),
            height: GLib.Variant.new_int32(frame.height),
            normal: GLib.Variant.new_boolean(window.window_type === Meta.WindowType.NORMAL),
            full_screen: GLib.Variant.new_boolean(window.is_fullscreen()),
            maximized: GLib.Variant.new_boolean(maximized),
            focused: GLib.Variant.new_boolean(window.has_focus()),
            on_active_workspace: GLib.Variant.new_boolean(window.located_on_workspace(workspace)),
        });
    }

    // The shell lists a Wayland window from the moment its client makes it,
    // and places it itself when it first shows it, over any frame set
    // before. A window not shown yet (its actor hidden, though it is neither
    // minimised nor on another workspace) runs `then` once it has been
    // shown, or after FIRST_SHOW_WAIT_MS for a client that never draws;
    // `otherwise` runs instead once the window is gone or the extension is
    // disabled.
    _whenShown(window, then, otherwise = () => {}) {
        const actor = window.get_compositor_private();
        const workspace = global.workspace_manager.get_active_workspace();
        if (!actor || actor.visible || window.minimized || !window.located_on_workspace(workspace)) {
            then();
            return;
        }
        const signals = [];
        let timer = 0;
        const end = run => {
            for (const signal of signals)
                window.disconnect(signal);
            signals.length = 0;
            this._clearTimeout(timer);
            this._pendingWaits.delete(cancel);
            if (run)
                then();
            else
                otherwise();
        };
        const cancel = () => end(false);
        signals.push(window.connect('shown', () => end(true)));
        signals.push(window.connect('unmanaged', cancel));
        this._pendingWaits.add(cancel);
        timer = this._timeout('first show wait', FIRST_SHOW_WAIT_MS, () => {
            timer = 0;
            end(true);
            return GLib.SOURCE_REMOVE;
        });
    }

    _windowList(windows) {
        return new GLib.Variant('(aa{sv})', [windows.map(w => this._windowVariant(w).deepUnpack())]);
    }

    // -- the methods of com.tarnwick.orvane.Shell

    VersionAsync(_params, invocation) {
        this._guard(invocation, () => {
            invocation.return_value(new GLib.Variant('(u)', [ORVANE_INTERFACE_VERSION]));
        });
    }

    BindHotkeysAsync(_params, invocation) {
        this._guard(invocation, () => {
            const bound = {};
            for (const name of HOTKEY_NAMES) {
                if (!this._bound.has(name) && !this._grab(name))
                    orvaneLog(`could not bind ${name} (${this._settings.get_strv(name).join(', ')})`);
                bound[name] = this._bound.has(name);
            }
            invocation.return_value(new GLib.Variant('(a{sb})', [bound]));
        });
    }

    // The hotkeys are grabbed accelerators, not keybindings: the shell
    // removes a grab at once, while a removed keybinding stays in its
    // table until an idle rebuild, and a key press in between runs a freed
    // handler and ends the shell.
    _grab(name) {
        const accelerator = this._settings.get_strv(name)[0] ?? '';
        const action = accelerator
            ? global.display.grab_accelerator(accelerator, Meta.KeyBindingFlags.NONE)
            : Meta.KeyBindingAction.NONE;
        if (action === Meta.KeyBindingAction.NONE)
            return false;
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action),
            Shell.ActionMode.NORMAL | Shell.ActionMode.OVERVIEW | Shell.ActionMode.POPUP);
        this._bound.set(name, action);
        return true;
    }

    _ungrab(name) {
        const action = this._bound.get(name);
        this._bound.delete(name);
        if (action === undefined)
            return;
        global.display.ungrab_accelerator(action);
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action), Shell.ActionMode.NONE);
    }

    _unbindHotkeys() {
        for (const name of [...this._bound.keys()])
            this._ungrab(name);
    }

    // Every grabbed accelerator of the shell is reported here; only ours
    // count. The time is the key press's.
    _hotkeyPressed(action, timestamp) {
        for (const [name, bound] of this._bound) {
            if (bound === action) {
                this._tellOwner('HotkeyPressed', new GLib.Variant('(su)',
                    [name, (timestamp || global.get_current_time()) >>> 0]));
                return;
            }
        }
    }

    // A signal for the owner of com.tarnwick.orvane alone; nobody else is told.
    _tellOwner(signal, parameters) {
        if (!this._owner)
            return;
        Gio.DBus.session.emit_signal(this._owner, ORVANE_OBJECT_PATH, ORVANE_INTERFACE,
            signal, parameters);
    }

    FrontWindowAsync(_params, invocation) {
        this._guard(invocation, () => {
            const window = global.display.get_focus_window();
            invocation.return_value(GLib.Variant.new_tuple([this._windowVariant(window)]));
        });
    }

    ListWindowsAsync(_params, invocation) {
        this._guard(invocation, () => {
            invocation.return_value(this._windowList(this._windows()));
        });
    }

    WindowsOfPidAsync([pid], invocation) {
        this._guard(invocation, () => {
            const windows = Number.isInteger(pid) && pid > 0
                ? this._windows().filter(w => w.get_pid() === pid) : [];
            invocation.return_value(this._windowList(windows));
        });
    }

    WindowAsync([id], invocation) {
        this._guard(invocation, () => {
            invocation.return_value(GLib.Variant.new_tuple(
                [this._windowVariant(this._windowById(id))]));
        });
    }

    MoveResizeAsync([id, x, y, width, height], invocation) {
        this._guard(invocation, () => {
            const fail = () => invocation.return_value(
                GLib.Variant.new_tuple([GLib.Variant.new_boolean(false), this._windowVariant(null)]));
            if (!isCoordinate(x) || !isCoordinate(y) || !isSize(width) || !isSize(height)) {
                orvaneLog(`MoveResize: refused the frame ${x},${y} ${width}x${height}`);
                fail();
                return;
            }
            const window = this._windowById(id);
            if (!window) {
                fail();
                return;
            }
            // A maximised or full-screen window allows no move or resize
            // until it has left that state.
            if (window.is_fullscreen())
                window.unmake_fullscreen();
            if (window.get_maximized())
                window.unmaximize(Meta.MaximizeFlags.BOTH);
            if (!window.allows_move() || !window.allows_resize()) {
                orvaneLog(`MoveResize: window ${id} cannot be moved or resized`);
                fail();
                return;
            }

            let finished = false;
            const signals = [];
            let timer = 0;
            const finish = ok => {
                if (finished)
                    return;
                finished = true;
                for (const signal of signals)
                    window.disconnect(signal);
                this._clearTimeout(timer);
                this._pendingWaits.delete(cancel);
                invocation.return_value(GLib.Variant.new_tuple(
                    [GLib.Variant.new_boolean(ok), this._windowVariant(ok ? window : null)]));
            };
            const cancel = () => finish(false);
            const reached = () => {
                const frame = window.get_frame_rect();
                return frame.x === x && frame.y === y && frame.width === width &&
                    frame.height === height;
            };
            const check = () => {
                if (reached())
                    finish(true);
            };
            const wait = () => {
                signals.push(window.connect('position-changed', check));
                signals.push(window.connect('size-changed', check));
                signals.push(window.connect('unmanaged', () => finish(false)));
                this._pendingWaits.add(cancel);
                timer = this._timeout('MoveResize wait', MOVE_RESIZE_WAIT_MS, () => {
                    timer = 0;
                    finish(true);
                    return GLib.SOURCE_REMOVE;
                });
                window.move_resize_frame(true, x, y, width, height);
                check();
            };
            // A Wayland window takes a new frame only once its client has
            // drawn at it, which a caller waiting for this very reply
            // cannot do: the caller's own window is answered at once, and
            // the caller reads its frame back itself.
            this._withCallerPid(invocation, pid => {
                if (finished)
                    return;
                if (this._windowById(id) !== window) {
                    finish(false);
                    return;
                }
                if (pid > 0 && window.get_pid() === pid) {
                    finished = true;
                    invocation.return_value(GLib.Variant.new_tuple(
                        [GLib.Variant.new_boolean(true), this._windowVariant(window)]));
                    this._whenShown(window,
                        () => window.move_resize_frame(true, x, y, width, height));
                    return;
                }
                this._whenShown(window, wait, () => finish(false));
            });
        });
    }

    ActivateAsync([id, timestamp], invocation) {
        this._guard(invocation, () => {
            const window = this._windowById(id);
            if (window) {
                const time = Number.isInteger(timestamp) && timestamp > 0
                    ? timestamp : global.get_current_time();
                Main.activateWindow(window, time);
            }
            invocation.return_value(new GLib.Variant('(b)', [window !== null]));
        });
    }

    LeaveFullScreenAsync([id], invocation) {
        this._guard(invocation, () => {
            const window = this._windowById(id);
            if (window && window.is_fullscreen())
                window.unmake_fullscreen();
            invocation.return_value(new GLib.Variant('(b)', [window !== null]));
        });
    }

    MakePanelAsync([id], invocation) {
        this._guard(invocation, () => {
            const window = this._windowById(id);
            if (!window) {
                invocation.return_value(new GLib.Variant('(b)', [false]));
                return;
            }
            this._withCallerPid(invocation, pid => {
                // The window may have gone while the bus answered.
                const still = this._windowById(id);
                const ok = still !== null && pid > 0 && still.get_pid() === pid;
                if (ok) {
                    still.make_above();
                    still.stick();
                } else if (still) {
                    orvaneLog(`MakePanel: refused window ${id} of pid ${still.get_pid()} ` +
                        `for the caller of pid ${pid}`);
                }
                invocation.return_value(new GLib.Variant('(b)', [ok]));
            });
        });
    }

    // The process of the caller (0 when the bus cannot tell).
    _withCallerPid(invocation, then) {
        Gio.DBus.session.call('org.freedesktop.DBus', '/org/freedesktop/DBus',
            'org.freedesktop.DBus', 'GetConnectionUnixProcessID',
            new GLib.Variant('(s)', [invocation.get_sender()]), new GLib.VariantType('(u)'),
            Gio.DBusCallFlags.NONE, 2000, null, (connection, result) => {
                let pid = 0;
                try {
                    [pid] = connection.call_finish(result).deepUnpack();
                } catch (e) {
                    pid = 0;
                }
                then(pid);
            });
    }

    MonitorsAsync(_params, invocation) {
        this._guard(invocation, () => {
            const workspace = global.workspace_manager.get_active_workspace();
            const monitors = Main.layoutManager.monitors.map(m => {
                const work = workspace.get_work_area_for_monitor(m.index);
                return [m.x, m.y, m.width, m.height, work.x, work.y, work.width, work.height];
            });
            invocation.return_value(new GLib.Variant('(a(iiiiiiii)i)',
                [monitors, Main.layoutManager.primaryIndex]));
        });
    }

    PointerAsync(_params, invocation) {
        this._guard(invocation, () => {
            const [x, y] = global.get_pointer();
            invocation.return_value(new GLib.Variant('(ii)', [x, y]));
        });
    }

    // -- selections

    _readText(type, invocation) {
        let done = false;
        const reply = (has, text) => {
            if (done)
                return;
            done = true;
            this._clearTimeout(timer);
            invocation.return_value(new GLib.Variant('(bs)', [has, text]));
        };
        const timer = this._timeout('selection text wait', TEXT_READ_WAIT_MS, () => {
            orvaneLog('reading a selection took too long; answering without text');
            reply(false, '');
            return GLib.SOURCE_REMOVE;
        });
        St.Clipboard.get_default().get_text(type, (_clipboard, text) => {
            if (typeof text !== 'string') {
                reply(false, '');
            } else if (text.length > MAX_TEXT_CHARS) {
                orvaneLog(`a selection of ${text.length} characters is too long to hand out`);
                reply(false, '');
            } else {
                reply(true, text);
            }
        });
    }

    PrimaryTextAsync(_params, invocation) {
        this._guard(invocation, () => this._readText(St.ClipboardType.PRIMARY, invocation));
    }

    ClipboardTextAsync(_params, invocation) {
        this._guard(invocation, () => this._readText(St.ClipboardType.CLIPBOARD, invocation));
    }

    ClipboardChangeCountAsync(_params, invocation) {
        this._guard(invocation, () => {
            invocation.return_value(new GLib.Variant('(t)', [this._clipboardChanges]));
        });
    }

    // Reads one type of the CLIPBOARD, at most MAX_CLIPBOARD_TYPE_BYTES and
    // CLIPBOARD_READ_WAIT_MS; calls back with a GLib.Bytes or null.
    _readClipboardType(mimetype, limit, callback) {
        const selection = global.display.get_selection();
        const output = Gio.MemoryOutputStream.new_resizable();
        const cancellable = new Gio.Cancellable();
        let done = false;
        const finish = bytes => {
            if (done)
                return;
            done = true;
            this._clearTimeout(timer);
            callback(bytes);
        };
        const timer = this._timeout('SaveClipboard wait', CLIPBOARD_READ_WAIT_MS, () => {
            cancellable.cancel();
            orvaneLog(`SaveClipboard: ${mimetype} took too long; left out`);
            finish(null);
            return GLib.SOURCE_REMOVE;
        });
        // One byte more than the limit tells a too-big type from one that fits.
        selection.transfer_async(Meta.SelectionType.SELECTION_CLIPBOARD, mimetype, limit + 1,
            output, cancellable, (source, result) => {
                let ok = false;
                try {
                    ok = source.transfer_finish(result);
                    output.close(null);
                } catch (e) {
                    ok = false;
                }
                if (!ok) {
                    finish(null);
                    return;
                }
                const bytes = output.steal_as_bytes();
                if (bytes.get_size() > limit) {
                    orvaneLog(`SaveClipboard: ${mimetype} is larger than ${limit} bytes; left out`);
                    finish(null);
                    return;
                }
                finish(bytes);
            });
    }

    SaveClipboardAsync(_params, invocation) {
        this._guard(invocation, () => {
            const types = (St.Clipboard.get_default().get_mimetypes(St.ClipboardType.CLIPBOARD) ?? [])
                .filter(isMimeType);
            const unique = [...new Set(types)].slice(0, MAX_CLIPBOARD_TYPES);
            if (types.length > MAX_CLIPBOARD_TYPES)
                orvaneLog(`SaveClipboard: the clipboard offers ${types.length} types; saving the first ${MAX_CLIPBOARD_TYPES}`);
            const saved = [];
            let total = 0;
            const started = GLib.get_monotonic_time();
            const next = index => {
                const overBudget = GLib.get_monotonic_time() - started > CLIPBOARD_SAVE_BUDGET_MS * 1000;
                if (index >= unique.length || overBudget || total >= MAX_CLIPBOARD_TOTAL_BYTES) {
                    if (index < unique.length)
                        orvaneLog(`SaveClipboard: left out ${unique.length - index} types (time or size)`);
                    invocation.return_value(new GLib.Variant('(a(say))', [saved]));
                    return;
                }
                const limit = Math.min(MAX_CLIPBOARD_TYPE_BYTES, MAX_CLIPBOARD_TOTAL_BYTES - total);
                this._readClipboardType(unique[index], limit, bytes => {
                    if (bytes) {
                        total += bytes.get_size();
                        saved.push([unique[index], bytes.toArray()]);
                    }
                    next(index + 1);
                });
            };
            next(0);
        });
    }

    RestoreClipboardAsync([contents], invocation) {
        this._guard(invocation, () => {
            const refuse = why => {
                orvaneLog(`RestoreClipboard: refused (${why})`);
                invocation.return_value(new GLib.Variant('(b)', [false]));
            };
            if (!Array.isArray(contents) || contents.length === 0 ||
                contents.length > MAX_CLIPBOARD_TYPES) {
                refuse(`${Array.isArray(contents) ? contents.length : 'no'} types; 1 to ${MAX_CLIPBOARD_TYPES} allowed`);
                return;
            }
            const byType = new Map();
            let total = 0;
            for (const entry of contents) {
                const [mimetype, data] = entry;
                const size = byteLength(data);
                if (!isMimeType(mimetype)) {
                    refuse('a bad MIME type');
                    return;
                }
                if (byType.has(mimetype)) {
                    refuse(`${mimetype} twice`);
                    return;
                }
                if (size < 0 || size > MAX_CLIPBOARD_TYPE_BYTES) {
                    refuse(`${mimetype} has ${size} bytes`);
                    return;
                }
                total += size;
                if (total > MAX_CLIPBOARD_TOTAL_BYTES) {
                    refuse(`more than ${MAX_CLIPBOARD_TOTAL_BYTES} bytes in all`);
                    return;
                }
                byType.set(mimetype, data);
            }
            const mimetype = bestRestorableType([...byType.keys()]);
            const data = byType.get(mimetype);
            const bytes = data instanceof GLib.Bytes ? data : new GLib.Bytes(data);
            St.Clipboard.get_default().set_content(St.ClipboardType.CLIPBOARD, mimetype, bytes);
            if (byType.size > 1)
                orvaneLog(`RestoreClipboard: put back ${mimetype} of ${byType.size} types (the shell offers one)`);
            invocation.return_value(new GLib.Variant('(b)', [true]));
        });
    }

    // -- the copy keystroke

    _modifiersHeld() {
        const [, , mask] = global.get_pointer();
        let modifiers = 0;
        for (const name of MODIFIER_MASK_NAMES) {
            if (Clutter.ModifierType[name] !== undefined)
                modifiers |= Clutter.ModifierType[name];
        }
        // MOD2 is Num Lock on almost every keymap: it does not change a chord.
        if (Clutter.ModifierType.MOD2_MASK !== undefined)
            modifiers &= ~Clutter.ModifierType.MOD2_MASK;
        return (mask & modifiers) !== 0;
    }

    _typeChord(withShift) {
        if (!this._virtualKeyboard) {
            // GNOME 43 to 45 have Clutter.get_default_backend(); later
            // versions reach the backend through the stage's context.
            const backend = typeof Clutter.get_default_backend === 'function'
                ? Clutter.get_default_backend() : global.stage.context.get_backend();
            const seat = backend.get_default_seat();
            this._virtualKeyboard = seat.create_virtual_device(Clutter.InputDeviceType.KEYBOARD_DEVICE);
        }
        const keys = [Clutter.KEY_Control_L];
        if (withShift)
            keys.push(Clutter.KEY_Shift_L);
        keys.push(Clutter.KEY_c);
        const now = () => GLib.get_monotonic_time();
        for (const key of keys)
            this._virtualKeyboard.notify_keyval(now(), key, Clutter.KeyState.PRESSED);
        for (const key of keys.reverse())
            this._virtualKeyboard.notify_keyval(now(), key, Clutter.KeyState.RELEASED);
    }

    SendCopyChordAsync([chord], invocation) {
        this._guard(invocation, () => {
            if (typeof chord !== 'string' || !COPY_CHORDS.has(chord)) {
                orvaneLog(`SendCopyChord: unknown chord ${JSON.stringify(String(chord).slice(0, 40))}`);
                invocation.return_value(new GLib.Variant('(b)', [false]));
                return;
            }
            const withShift = COPY_CHORDS.get(chord);
            const started = GLib.get_monotonic_time();
            let timer = 0;
            let finished = false;
            const finish = ok => {
                if (finished)
                    return;
                finished = true;
                this._clearTimeout(timer);
                this._pendingWaits.delete(cancel);
                invocation.return_value(new GLib.Variant('(b)', [ok]));
            };
            const cancel = () => finish(false);
            const attempt = () => {
                if (!this._modifiersHeld()) {
                    this._typeChord(withShift);
                    finish(true);
                    return GLib.SOURCE_REMOVE;
                }
                if (GLib.get_monotonic_time() - started >= MODIFIER_WAIT_MS * 1000) {
                    orvaneLog('SendCopyChord: a modifier key is still held; not typing');
                    finish(false);
                    return GLib.SOURCE_REMOVE;
                }
                return GLib.SOURCE_CONTINUE;
            };
            if (attempt() === GLib.SOURCE_CONTINUE) {
                this._pendingWaits.add(cancel);
                timer = this._timeout('SendCopyChord modifier poll', MODIFIER_POLL_MS, () => {
                    const result = attempt();
                    if (result === GLib.SOURCE_REMOVE)
                        timer = 0;
                    return result;
                });
            }
        });
    }
}
