/*
 * The site's own HTTP API as seen from the pages (same origin, JSON).
 */
(function (root) {
  'use strict';

  /** A paper id in a URL path: each "/"-separated part encoded, the slashes kept. */
  function idPath(id) {
    return String(id).split('/').map(encodeURIComponent).join('/');
  }

  async function call(method, url, body) {
    const init = { method, headers: { Accept: 'application/json' } };
    if (body !== undefined) {
      init.headers['Content-Type'] = 'application/json';
      init.body = JSON.stringify(body);
    }
    const response = await fetch(url, init);
    if (!response.ok) {
      let detail = '';
      try {
        const text = await response.text();
        try {
          detail = JSON.parse(text).detail;
        } catch (err) {
          detail = text;
        }
      } catch (err) {
        detail = '';
      }
      if (typeof detail !== 'string') detail = JSON.stringify(detail);
      throw new Error(detail ? `${detail} (HTTP ${response.status})` : `HTTP ${response.status}`);
    }
    return response.status === 204 ? null : response.json();
  }

  const api = {
    idPath,
    me: () => call('GET', '/api/me'),
    /** The release the site offers: {version, url, size} or {version: null}. */
    update: () => call('GET', '/api/update'),
    papers: (query) => call('GET', query ? `/api/papers?q=${encodeURIComponent(query)}` : '/api/papers'),
    paper: (id) => call('GET', `/api/papers/${idPath(id)}`),
    addNote: (paper, note) => call('POST', paper.notes_url, note),
    deleteNote: (paper, noteId) => call('DELETE', `${paper.notes_url}/${encodeURIComponent(noteId)}`),
    inbox: () => call('GET', '/api/inbox'),
    /** Where a dropped file of this name is PUT (absolute, for Orvane). */
    inboxUploadUrl: (name) => new URL(`/api/inbox/${encodeURIComponent(name)}`, location.href).href,
    importInbox: (item, id) => call('POST', item.import_url, id ? { id } : {}),
    deleteInbox: (item) => call('DELETE', item.url),
  };

  root.OrvaneSite = root.OrvaneSite || {};
  root.OrvaneSite.api = api;
})(self);
