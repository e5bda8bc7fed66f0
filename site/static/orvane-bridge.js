/*
 * orvane-bridge.js: a small client for the Orvane page bridge.
 *
 * Inside Orvane a page talks to the desktop program through one channel:
 *   page -> Orvane   window.webkit.messageHandlers.panel.postMessage({action, ...payload})
 *   Orvane -> page   window.panelEvent({type, ...payload})
 * and Orvane sets window.panelCaps before any page script runs.
 *
 * This file wraps that channel: every action is a function, every event can
 * be subscribed to, and the actions that end in a known answer return a
 * promise for it (keyed by paper id, upload token or agent turn). In an
 * ordinary browser there is no message handler: `available` is false,
 * actions do nothing and promises reject with code "unavailable", so one
 * page can serve both.
 *
 * Use it as a plain script: <script src="/static/orvane-bridge.js"></script>
 * gives window.OrvaneBridge. Subscribe to events first, then say hello:
 * Orvane holds back events until some page has said hello and delivers them
 * right after it, so handlers must already be in place. Types are in
 * orvane-bridge.d.ts; the protocol is described in docs/bridge.md.
 */
(function (root, factory) {
  'use strict';
  if (typeof module === 'object' && module.exports) {
    // Node (tests): export the factory, to be called with a window stand-in.
    module.exports = factory;
  } else {
    root.OrvaneBridge = factory(root);
  }
})(typeof self !== 'undefined' ? self : this, function createBridge(win) {
  'use strict';

  // Every event type Orvane sends. Each gets a named subscription function:
  // "pdfChanged" -> bridge.onPdfChanged(handler).
  const EVENT_TYPES = [
    'claudeStatus', 'claudeLine', 'claudeDone',
    'pdfChanged', 'pdfOpened', 'pdfReady', 'pdfNotReady', 'error',
    'uploaded', 'dockDrop', 'inboxUploaded', 'friendQuote',
    'updateProgress', 'updateDone',
  ];

  class BridgeError extends Error {
    /**
     * @param {string} message
     * @param {string} code  "unavailable" outside Orvane, "event" when an
     *                       "error" event answered the request
     * @param {object|null} event  the answering event, if any
     */
    constructor(message, code, event) {
      super(message);
      this.name = 'BridgeError';
      this.code = code;
      this.event = event || null;
    }
  }

  const listeners = new Map(); // type (or "*") -> Set of handlers
  let counter = 0;

  function messageHandler() {
    const webkit = win.webkit;
    return (webkit && webkit.messageHandlers && webkit.messageHandlers.panel) || null;
  }

  /** A fresh id for upload tokens and agent turns: unique within this page. */
  function newToken(prefix) {
    counter += 1;
    const random = Math.random().toString(36).slice(2, 8);
    return `${prefix || 'tok'}-${Date.now().toString(36)}-${counter}-${random}`;
  }

  /**
   * Post one action. Keys whose value is undefined are left out, so optional
   * payload keys can be passed as undefined. Returns false outside Orvane.
   */
  function post(action, payload) {
    const handler = messageHandler();
    if (!handler) return false;
    const body = {};
    for (const [key, value] of Object.entries(payload || {})) {
      if (value !== undefined) body[key] = value;
    }
    body.action = action;
    handler.postMessage(body);
    return true;
  }

  /** Subscribe to one event type, or "*" for every event. Returns an unsubscribe function. */
  function on(type, handler) {
    if (!listeners.has(type)) listeners.set(type, new Set());
    listeners.get(type).add(handler);
    return () => off(type, handler);
  }

  function off(type, handler) {
    const set = listeners.get(type);
    if (set) set.delete(handler);
  }

  function dispatch(event) {
    const type = event && typeof event === 'object' ? event.type : undefined;
    const targets = [...(listeners.get(type) || []), ...(listeners.get('*') || [])];
    for (const handler of targets) {
      // One failing handler must not keep the event from the others.
      try {
        handler(event);
      } catch (err) {
        if (win.console) win.console.error('orvane-bridge: event handler failed', err);
      }
    }
  }

  /** The next event of a type that passes `filter` (optional), as a promise. */
  function once(type, filter) {
    return new Promise((resolve) => {
      const stop = on(type, (event) => {
        if (filter && !filter(event)) return;
        stop();
        resolve(event);
      });
    });
  }

  function unavailable(what) {
    return Promise.reject(new BridgeError(
      `${what} needs the Orvane desktop app; this page runs in a plain browser`, 'unavailable'));
  }

  /**
   * Post an action and wait for its answer: the first event of `okType`
   * that `matches`, or an "error" event with the same paper id (for the
   * PDF actions, whose failures arrive as "error").
   */
  function request(action, payload, okType, matches, errorId) {
    if (!messageHandler()) return unavailable(action);
    return new Promise((resolve, reject) => {
      const stops = [];
      const finish = () => stops.forEach((stop) => stop());
      stops.push(on(okType, (event) => {
        if (!matches(event)) return;
        finish();
        resolve(event);
      }));
      if (errorId !== undefined) {
        stops.push(on('error', (event) => {
          if (event.id !== errorId) return;
          finish();
          reject(new BridgeError(event.message || `${action} failed`, 'event', event));
        }));
      }
      try {
        post(action, payload);
      } catch (err) {
        // A payload the channel cannot carry: no answer will ever come.
        finish();
        reject(err);
      }
    });
  }

  function absoluteUrl(url) {
    if (!url) return url;
    try {
      return new URL(url, win.location && win.location.href).href;
    } catch (err) {
      return url;
    }
  }

  // A paper as the PDF actions need it: {id, url, etag}. A paper object from
  // the reference site's /api/papers works as it is: its "pdf_url" is the url.
  const pdfPayload = ({ id, url, pdf_url: pdfUrl, etag }) => ({ id, url: absoluteUrl(url || pdfUrl), etag });

  const bridge = {
    BridgeError,
    EVENT_TYPES,

    /** True inside Orvane (the "panel" message handler exists). */
    get available() {
      return Boolean(messageHandler());
    },

    /** window.panelCaps as Orvane set it, or null in a browser. */
    get caps() {
      return win.panelCaps || null;
    },

    post,
    on,
    off,
    once,
    dispatch,
    newToken,
    absoluteUrl,

    /** Introduce the page: it becomes the one that receives Orvane's events. */
    hello(account) {
      return post('hello', { account: String(account || '') });
    },

    /** Fetch the PDF if needed and open it in the PDF viewer. Resolves with "pdfOpened". */
    openPdf(paper) {
      return request('openPdf', pdfPayload(paper), 'pdfOpened', (e) => e.id === paper.id, paper.id);
    },

    /** Fetch the PDF if needed, nothing else. Resolves with "pdfReady". */
    preparePdf(paper) {
      return request('preparePdf', pdfPayload(paper), 'pdfReady', (e) => e.id === paper.id, paper.id);
    },

    /**
     * Fetch the PDF if needed and show it in the file manager. Orvane sends
     * nothing on success, so this returns whether the action was posted; a
     * failure arrives as an "error" event with the id.
     */
    revealPdf(paper) {
      return post('revealPdf', pdfPayload(paper));
    },

    /** Start a file drag of the local PDF (call it from dragstart). "pdfNotReady" if it is not on disk. */
    dragPdf(id) {
      return post('dragPdf', { id });
    },

    /** Start a file drag of any local file by absolute path. */
    dragFile(path) {
      return post('dragFile', { path });
    },

    /**
     * Upload the local PDF of a paper (Orvane sends "x-upsert: true").
     * Resolves with the "uploaded" event for this token, whether ok or not.
     */
    uploadFile({ id, upload_url, token }) {
      const tok = token || newToken('upload');
      return request('uploadFile', { id, upload_url: absoluteUrl(upload_url), token: tok },
        'uploaded', (e) => e.token === tok);
    },

    /** Upload a PDF dropped on Orvane (its "dockDrop" token). Resolves with "inboxUploaded". */
    inboxUpload({ token, upload_url }) {
      return request('inboxUpload', { token, upload_url: absoluteUrl(upload_url) },
        'inboxUploaded', (e) => e.token === token);
    },

    /** Tell Orvane that the site holds the version of `mtime` under `etag`. */
    markSynced({ id, etag, mtime }) {
      return post('markSynced', { id, etag, mtime });
    },

    /**
     * Run one agent turn. `body` holds args, files, prompt_head, text_file,
     * prompt_tail (and turn, else one is made). `onLine(line, event)` gets
     * each output line. Returns {turn, done, stop}: `done` resolves with the
     * "claudeDone" event.
     */
    runClaude(body, options) {
      const turn = body.turn || newToken('turn');
      const onLine = options && options.onLine;
      if (!messageHandler()) return { turn, done: unavailable('runClaude'), stop() {} };
      const stopLines = onLine
        ? on('claudeLine', (e) => { if (e.turn === turn) onLine(e.line, e); })
        : () => {};
      // The line subscription ends inside the claudeDone handler itself, not
      // in a later promise callback: "claudeDone" is the turn's last event.
      const done = new Promise((resolve) => {
        const stopDone = on('claudeDone', (event) => {
          if (event.turn !== turn) return;
          stopDone();
          stopLines();
          resolve(event);
        });
      });
      post('runClaude', Object.assign({}, body, { turn }));
      return { turn, done, stop: () => bridge.stopClaude(turn) };
    },

    /** Terminate a running turn; its "claudeDone" still follows. */
    stopClaude(turn) {
      return post('stopClaude', { turn });
    },

    /** Ask Orvane to update itself from a zip archive; watch "updateProgress"/"updateDone". */
    updateApp(url) {
      return post('updateApp', { url: absoluteUrl(url) });
    },

    /** Open the sparring window for a paper. */
    spar(id) {
      return post('spar', { id });
    },

    /** Close the sparring window (from the sparring page). */
    closeSpar() {
      return post('closeSpar', {});
    },

    /** Hide the quick panel (only has an effect from the quick panel's page). */
    close() {
      return post('close', {});
    },

    /**
     * Put the PDF viewer beside the library: give {path} for a local file,
     * or a paper {id, url, etag} to fetch first. A failed fetch arrives as
     * an "error" event with the id.
     */
    previewSplit(target) {
      if (target && target.path) return post('previewSplit', { path: target.path });
      return post('previewSplit', pdfPayload(target || {}));
    },

    /** Receive quotes that Orvane sends to the sparring page (window.sparQuote). */
    onSparQuote(handler) {
      win.sparQuote = (text) => handler(String(text));
    },
  };

  for (const type of EVENT_TYPES) {
    bridge['on' + type[0].toUpperCase() + type.slice(1)] = (handler) => on(type, handler);
  }

  // Orvane delivers every event by calling window.panelEvent(event). A
  // function the page set before this script loaded keeps being called.
  const previous = typeof win.panelEvent === 'function' ? win.panelEvent : null;
  win.panelEvent = function panelEvent(event) {
    if (previous) previous(event);
    dispatch(event);
  };

  return bridge;
});
