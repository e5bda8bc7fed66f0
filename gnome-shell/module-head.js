// Orvane's GNOME Shell extension, the ES-module form of GNOME 45 and later
// (made by the build from gnome-shell/module-head.js, extension-core.js and
// module-tail.js).
import Clutter from 'gi://Clutter';
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import Meta from 'gi://Meta';
import Shell from 'gi://Shell';
import St from 'gi://St';

import * as Main from 'resource:///org/gnome/shell/ui/main.js';
import {Extension} from 'resource:///org/gnome/shell/extensions/extension.js';

