'use strict';
// A window stand-in for the bridge: records posted messages, like Orvane's
// "panel" handler would, and can play Orvane's part by sending events.
const createBridge = require('../../static/orvane-bridge.js');

function fakeWindow({ inOrvane = true } = {}) {
  const posted = [];
  const win = {
    location: { href: 'http://127.0.0.1:8000/' },
    console: { error() {} },
    panelCaps: inOrvane ? { localPdfs: true, hotkey: true, dockDrop: true, claude: '', version: '1.0', build: 'x' } : undefined,
  };
  if (inOrvane) {
    win.webkit = { messageHandlers: { panel: { postMessage: (body) => posted.push(JSON.parse(JSON.stringify(body))) } } };
  }
  const bridge = createBridge(win);
  // Orvane calls window.panelEvent with each event.
  const send = (event) => win.panelEvent(event);
  return { win, bridge, posted, send };
}

module.exports = { fakeWindow };
