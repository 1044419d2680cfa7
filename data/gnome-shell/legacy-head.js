// GNOME Shell 43 and 44: a legacy extension with init(), enable() and disable().
/* exported init */
const {Gio, GLib, Shell} = imports.gi;

