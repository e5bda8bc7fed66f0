/*
 * Keeping the site's PDFs in step with the local copies that Orvane edits.
 *
 * The round trip for one edit:
 *   Orvane  "pdfChanged" {id, mtime, size}     a library PDF was saved locally
 *   page    "uploadFile" {id, upload_url, token}
 *   Orvane  "uploaded"   {id, token, ok, mtime, error}
 *   page    GET /api/papers                    learn the etag of the new version
 *   page    "markSynced" {id, etag, mtime}     mtime from "uploaded": the file as
 *                                              it was when the upload started
 * If the file was saved again during the upload, Orvane notices at
 * "markSynced" and sends a fresh "pdfChanged", which starts the next round.
 * So a "pdfChanged" that arrives while a round is under way is dropped here.
 *
 * Used by the library page and the sparring page alike: Orvane sends events
 * to whichever page said hello last, so both must be able to finish a sync.
 */
(function (root, factory) {
  'use strict';
  if (typeof module === 'object' && module.exports) module.exports = factory;
  else (root.OrvaneSite = root.OrvaneSite || {}).createSync = factory;
})(typeof self !== 'undefined' ? self : this, function createSync(deps) {
  'use strict';

  const { bridge, getPaper, refreshPapers, onChange, onUnknown } = deps;
  const states = new Map(); // paper id -> {phase, error, mtime, size, at, etag}
  const BUSY = new Set(['uploading', 'confirming']);

  function set(id, fields) {
    const state = Object.assign({}, states.get(id), fields);
    states.set(id, state);
    if (onChange) onChange(id, state);
    return state;
  }

  async function upload(id) {
    const paper = getPaper(id);
    if (!paper) return;
    set(id, { phase: 'uploading', error: '' });
    let reply;
    try {
      reply = await bridge.uploadFile({ id, upload_url: paper.upload_url });
    } catch (err) {
      set(id, { phase: 'failed', error: err.message || String(err) });
      return;
    }
    if (!reply.ok) {
      set(id, { phase: 'failed', error: reply.error || 'upload failed' });
      return;
    }
    set(id, { phase: 'confirming' });
    let fresh;
    try {
      const papers = await refreshPapers();
      fresh = papers.find((p) => p.id === id);
    } catch (err) {
      set(id, { phase: 'failed', error: `uploaded, but the new version could not be read: ${err.message || err}` });
      return;
    }
    if (!fresh) {
      set(id, { phase: 'failed', error: 'uploaded, but the paper is no longer in the library' });
      return;
    }
    bridge.markSynced({ id, etag: fresh.etag, mtime: reply.mtime });
    set(id, { phase: 'synced', etag: fresh.etag, at: Date.now() });
  }

  function pdfChanged(event) {
    const id = event && event.id;
    if (!id) return;
    if (!getPaper(id)) {
      if (onUnknown) onUnknown(event);
      return;
    }
    const current = states.get(id);
    set(id, { mtime: event.mtime, size: event.size });
    if (current && BUSY.has(current.phase)) return;
    upload(id);
  }

  bridge.on('pdfChanged', pdfChanged);

  return {
    /** The sync state of a paper, or undefined when nothing happened to it yet. */
    get: (id) => states.get(id),
    /** Start the round again after a failure. */
    retry: (id) => {
      const current = states.get(id);
      if (current && BUSY.has(current.phase)) return;
      upload(id);
    },
    pdfChanged,
  };
});
