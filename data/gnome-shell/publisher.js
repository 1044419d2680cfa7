// Publishes the focused window on the session bus for the CorviAgent that runs in this
// session: its application ID, title and process ID, on request and on every change.
// Shared by both forms of the extension; the build adds the imports of Gio, GLib and Shell
// before it and the extension's entry points after it.

const BUS_NAME = 'tech.stonefold.corvimetry.GnomeShell';
const OBJECT_PATH = '/tech/stonefold/corvimetry/FocusedWindow';
const INTERFACE_XML = `
<node>
  <interface name="tech.stonefold.corvimetry.FocusedWindow">
    <method name="Get">
      <arg type="b" name="focused" direction="out"/>
      <arg type="s" name="appId" direction="out"/>
      <arg type="s" name="title" direction="out"/>
      <arg type="u" name="pid" direction="out"/>
    </method>
    <signal name="Changed">
      <arg type="b" name="focused"/>
      <arg type="s" name="appId"/>
      <arg type="s" name="title"/>
      <arg type="u" name="pid"/>
    </signal>
  </interface>
</node>`;

// A title is a client's to choose; past this many UTF-16 units it is cut, so one window
// cannot make every reply huge.
const TITLE_UNITS = 64 * 1024;

function cutTitle(title) {
    if (title.length <= TITLE_UNITS)
        return title;
    let end = TITLE_UNITS;
    const last = title.charCodeAt(end - 1);
    if (last >= 0xd800 && last <= 0xdbff)
        end -= 1;
    return title.slice(0, end);
}

// Each read is guarded: a window being torn down may refuse, and the caller gets a neutral
// value instead of an error reply.
function read(getter, fallback) {
    try {
        const value = getter();
        return value === null || value === undefined ? fallback : value;
    } catch (e) {
        return fallback;
    }
}

class FocusPublisher {
    constructor() {
        this._tracker = Shell.WindowTracker.get_default();
        this._window = null;
        this._windowSignals = [];
        this._last = null;
    }

    enable() {
        this._dbus = Gio.DBusExportedObject.wrapJSObject(INTERFACE_XML, this);
        this._dbus.export(Gio.DBus.session, OBJECT_PATH);
        this._focusSignal = global.display.connect('notify::focus-window', () => this._follow());
        this._follow();
        // The name comes last: whoever sees it can call at once.
        this._nameId = Gio.bus_own_name_on_connection(Gio.DBus.session, BUS_NAME,
            Gio.BusNameOwnerFlags.NONE, null, null);
    }

    disable() {
        if (this._nameId) {
            Gio.bus_unown_name(this._nameId);
            this._nameId = 0;
        }
        if (this._focusSignal) {
            global.display.disconnect(this._focusSignal);
            this._focusSignal = 0;
        }
        this._release();
        if (this._dbus) {
            this._dbus.unexport();
            this._dbus = null;
        }
        this._last = null;
    }

    Get() {
        return this._describe(global.display.focus_window);
    }

    _describe(win) {
        if (!win)
            return [false, '', '', 0];
        const app = read(() => this._tracker.get_window_app(win), null);
        let appId = app && !read(() => app.is_window_backed(), true) ? read(() => app.get_id(), '') : '';
        if (appId.endsWith('.desktop'))
            appId = appId.slice(0, -'.desktop'.length);
        if (!appId) {
            appId = read(() => win.get_sandboxed_app_id(), '') ||
                read(() => win.get_gtk_application_id(), '') ||
                read(() => win.get_wm_class(), '');
        }
        const pid = read(() => win.get_pid(), 0);
        return [true, appId, cutTitle(read(() => win.get_title(), '')), pid > 0 ? pid : 0];
    }

    _follow() {
        const win = global.display.focus_window;
        if (win !== this._window) {
            this._release();
            this._window = win;
            if (win) {
                // The application can be known only once the client names itself.
                for (const property of ['notify::title', 'notify::wm-class', 'notify::gtk-application-id'])
                    this._windowSignals.push(win.connect(property, () => this._publish()));
            }
        }
        this._publish();
    }

    _release() {
        for (const id of this._windowSignals) {
            try {
                this._window.disconnect(id);
            } catch (e) {
                // Already gone with its window.
            }
        }
        this._windowSignals = [];
        this._window = null;
    }

    _publish() {
        if (!this._dbus)
            return;
        const triple = this._describe(this._window);
        const key = JSON.stringify(triple);
        if (key === this._last)
            return;
        this._last = key;
        this._dbus.emit_signal('Changed', new GLib.Variant('(bssu)', triple));
    }
}
