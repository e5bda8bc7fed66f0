// Orvane's GNOME Shell extension, the form of GNOME 43 and 44 (made by the
// build from gnome-shell/legacy-head.js, extension-core.js and legacy-tail.js).
'use strict';

const {Gio, GLib, Meta, Shell, St, Clutter} = imports.gi;
const Main = imports.ui.main;
const ExtensionUtils = imports.misc.extensionUtils;

