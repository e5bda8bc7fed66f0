'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const createSync = require('../../static/js/sync.js');
const { fakeWindow } = require('./helpers.js');

const tick = () => new Promise((resolve) => setImmediate(resolve));

function setup({ papersAfterUpload } = {}) {
  const { bridge, posted, send } = fakeWindow();
  let papers = [{ id: 'cs/0101123', upload_url: 'http://127.0.0.1:8000/api/papers/cs/0101123/pdf', etag: 'old' }];
  const phases = [];
  const unknown = [];
  const sync = createSync({
    bridge,
    getPaper: (id) => papers.find((p) => p.id === id) || null,
    refreshPapers: async () => {
      papers = papersAfterUpload || [{ ...papers[0], etag: 'new' }];
      return papers;
    },
    onChange: (id, state) => phases.push(state.phase),
    onUnknown: (event) => unknown.push(event.id),
  });
  return { sync, posted, send, phases, unknown };
}

test('pdfChanged -> uploadFile -> uploaded -> refetch -> markSynced with the new etag and the upload mtime', async () => {
  const { sync, posted, send, phases } = setup();
  send({ type: 'pdfChanged', id: 'cs/0101123', mtime: 100.5, size: 2048 });
  assert.equal(posted.length, 1);
  const up = posted[0];
  assert.equal(up.action, 'uploadFile');
  assert.equal(up.id, 'cs/0101123');
  assert.equal(up.upload_url, 'http://127.0.0.1:8000/api/papers/cs/0101123/pdf');
  assert.ok(up.token);
  // A second change while the upload runs starts nothing new: Orvane reports
  // it again after markSynced.
  send({ type: 'pdfChanged', id: 'cs/0101123', mtime: 101, size: 2050 });
  assert.equal(posted.length, 1);
  send({ type: 'uploaded', id: 'cs/0101123', token: up.token, ok: true, mtime: 100.5, error: '' });
  await tick();
  await tick();
  assert.deepEqual(posted[1], { action: 'markSynced', id: 'cs/0101123', etag: 'new', mtime: 100.5 });
  assert.equal(sync.get('cs/0101123').phase, 'synced');
  assert.deepEqual(phases.filter((p, i) => p !== phases[i - 1]), ['uploading', 'confirming', 'synced']);
});

test('a failed upload is reported and can be retried', async () => {
  const { sync, posted, send } = setup();
  send({ type: 'pdfChanged', id: 'cs/0101123', mtime: 1, size: 1 });
  send({ type: 'uploaded', id: 'cs/0101123', token: posted[0].token, ok: false, mtime: 1, error: 'HTTP 413: too big' });
  await tick();
  assert.equal(sync.get('cs/0101123').phase, 'failed');
  assert.equal(sync.get('cs/0101123').error, 'HTTP 413: too big');
  assert.equal(posted.filter((m) => m.action === 'markSynced').length, 0);
  sync.retry('cs/0101123');
  assert.equal(posted.length, 2);
  assert.equal(posted[1].action, 'uploadFile');
  assert.notEqual(posted[1].token, posted[0].token);
});

test('a paper that vanished from the list is not marked synced', async () => {
  const { sync, posted, send } = setup({ papersAfterUpload: [] });
  send({ type: 'pdfChanged', id: 'cs/0101123', mtime: 1, size: 1 });
  send({ type: 'uploaded', id: 'cs/0101123', token: posted[0].token, ok: true, mtime: 1, error: '' });
  await tick();
  await tick();
  assert.equal(sync.get('cs/0101123').phase, 'failed');
  assert.equal(posted.length, 1);
});

test('changes of papers the site does not know are passed on, not uploaded', () => {
  const { posted, send, unknown } = setup();
  send({ type: 'pdfChanged', id: 'elsewhere/1', mtime: 1, size: 1 });
  assert.deepEqual(unknown, ['elsewhere/1']);
  assert.equal(posted.length, 0);
});
