/*
 * Small DOM helpers shared by the pages: an element builder, notices
 * (toasts), the top banner, and formatting of sizes and times.
 */
(function (root) {
  'use strict';

  /**
   * h('button', {class: 'primary', onclick: fn, title: 'Open'}, 'Open')
   * Attributes starting with "on" become listeners; `dataset` and `hidden`
   * are handled; children may be strings, nodes, arrays, null or false.
   */
  function h(tag, attrs, ...children) {
    const el = document.createElement(tag);
    for (const [key, value] of Object.entries(attrs || {})) {
      if (value === undefined || value === null || value === false) continue;
      if (key.startsWith('on') && typeof value === 'function') {
        el.addEventListener(key.slice(2), value);
      } else if (key === 'dataset') {
        Object.assign(el.dataset, value);
      } else if (key === 'class') {
        el.className = value;
      } else if (key === 'hidden' || key === 'disabled' || key === 'draggable') {
        el[key] = Boolean(value);
      } else {
        el.setAttribute(key, value === true ? '' : String(value));
      }
    }
    append(el, children);
    return el;
  }

  function append(el, children) {
    for (const child of children) {
      if (child === null || child === undefined || child === false) continue;
      if (Array.isArray(child)) append(el, child);
      else el.append(child instanceof Node ? child : String(child));
    }
  }

  /**
   * A toast in #notices. Errors stay until dismissed; others fade after
   * `timeout` ms (0: stay). `actions` adds buttons: [{label, onclick}].
   */
  function notify(message, options) {
    const opts = Object.assign({ kind: 'info', timeout: 5000 }, options);
    const box = document.getElementById('notices');
    if (!box) return null;
    const close = () => {
      note.classList.add('leaving');
      setTimeout(() => note.remove(), 180);
    };
    const note = h('div', { class: `notice ${opts.kind}`, role: opts.kind === 'error' ? 'alert' : 'status' },
      h('div', { class: 'notice-text' },
        opts.title ? h('strong', {}, opts.title) : null,
        h('span', {}, message),
        (opts.actions || []).map((action) => h('button', { class: 'link', type: 'button', onclick: () => {
          close();
          action.onclick();
        } }, action.label))),
      h('button', { class: 'icon-button', title: 'Dismiss', 'aria-label': 'Dismiss', onclick: close }, '\u00d7'));
    box.append(note);
    if (opts.kind !== 'error' && opts.timeout > 0) setTimeout(close, opts.timeout);
    return { close };
  }

  /** The strip under the top bar (self-update progress). Pass null to hide it. */
  function banner(text, kind) {
    const el = document.getElementById('banner');
    if (!el) return;
    el.hidden = !text;
    el.className = `banner ${kind || 'info'}`;
    el.textContent = text || '';
  }

  function formatSize(bytes) {
    if (!(bytes >= 0)) return '';
    if (bytes < 1024) return `${bytes} B`;
    if (bytes < 1024 * 1024) return `${(bytes / 1024).toFixed(0)} KB`;
    return `${(bytes / 1024 / 1024).toFixed(1)} MB`;
  }

  /** "14:05" today, "3 Mar, 14:05" otherwise; accepts ISO text, Date or ms. */
  function formatTime(value) {
    const date = value instanceof Date ? value : new Date(value);
    if (Number.isNaN(date.getTime())) return '';
    const time = date.toLocaleTimeString([], { hour: '2-digit', minute: '2-digit' });
    if (date.toDateString() === new Date().toDateString()) return time;
    return `${date.toLocaleDateString([], { day: 'numeric', month: 'short' })}, ${time}`;
  }

  function debounce(fn, ms) {
    let timer = null;
    return (...args) => {
      clearTimeout(timer);
      timer = setTimeout(() => fn(...args), ms);
    };
  }

  function errorText(err) {
    return (err && err.message) || String(err);
  }

  root.OrvaneSite = root.OrvaneSite || {};
  root.OrvaneSite.ui = { h, notify, banner, formatSize, formatTime, debounce, errorText };
})(self);
