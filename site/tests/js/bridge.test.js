'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { fakeWindow } = require('./helpers.js');

test('actions are posted as {action, ...payload} with undefined keys left out', () => {
  const { bridge, posted } = fakeWindow();
  assert.equal(bridge.hello('demo'), true);
  bridge.revealPdf({ id: 'cs/0101123', url: '/api/papers/cs/0101123/pdf', etag: undefined });
  bridge.spar('cs/0101123');
  bridge.closeSpar();
  bridge.close();
  bridge.dragPdf('2401.01234');
  bridge.previewSplit({ path: '/tmp/a.pdf' });
  bridge.markSynced({ id: 'a', etag: 'e', mtime: 12.5 });
  assert.deepEqual(posted, [
    { action: 'hello', account: 'demo' },
    { action: 'revealPdf', id: 'cs/0101123', url: 'http://127.0.0.1:8000/api/papers/cs/0101123/pdf' },
    { action: 'spar', id: 'cs/0101123' },
    { action: 'closeSpar' },
    { action: 'close' },
    { action: 'dragPdf', id: '2401.01234' },
    { action: 'previewSplit', path: '/tmp/a.pdf' },
    { action: 'markSynced', id: 'a', etag: 'e', mtime: 12.5 },
  ]);
});

test('events reach subscribers of their type and of "*", and can be unsubscribed', () => {
  const { bridge, send } = fakeWindow();
  const seen = [];
  const stop = bridge.onPdfChanged((e) => seen.push(['changed', e.id]));
  bridge.on('*', (e) => seen.push(['any', e.type]));
  send({ type: 'pdfChanged', id: 'x', mtime: 1, size: 2 });
  stop();
  send({ type: 'pdfChanged', id: 'y', mtime: 1, size: 2 });
  assert.deepEqual(seen, [['changed', 'x'], ['any', 'pdfChanged'], ['any', 'pdfChanged']]);
});

test('a failing handler does not keep the event from the others', () => {
  const { bridge, send } = fakeWindow();
  let reached = false;
  bridge.onError(() => { throw new Error('boom'); });
  bridge.onError(() => { reached = true; });
  send({ type: 'error', id: '', message: 'm' });
  assert.equal(reached, true);
});

test('openPdf resolves with its pdfOpened and ignores other papers', async () => {
  const { bridge, posted, send } = fakeWindow();
  const opened = bridge.openPdf({ id: 'b', url: 'http://h/b.pdf', etag: 't' });
  assert.deepEqual(posted, [{ action: 'openPdf', id: 'b', url: 'http://h/b.pdf', etag: 't' }]);
  send({ type: 'pdfOpened', id: 'a' });
  send({ type: 'pdfOpened', id: 'b' });
  assert.deepEqual(await opened, { type: 'pdfOpened', id: 'b' });
});

test('openPdf rejects with the error event of its paper', async () => {
  const { bridge, send } = fakeWindow();
  const opened = bridge.openPdf({ id: 'b', url: 'u', etag: 't' });
  send({ type: 'error', id: 'b', message: 'No PDF to fetch' });
  await assert.rejects(opened, (err) => err.code === 'event' && err.message === 'No PDF to fetch' && err.event.id === 'b');
});

test('uploadFile makes a token and resolves with the uploaded event carrying it', async () => {
  const { bridge, posted, send } = fakeWindow();
  const up = bridge.uploadFile({ id: 'p', upload_url: '/api/papers/p/pdf' });
  const { token } = posted[0];
  assert.match(token, /^upload-/);
  assert.equal(posted[0].upload_url, 'http://127.0.0.1:8000/api/papers/p/pdf');
  send({ type: 'uploaded', id: 'p', token: 'other', ok: true, mtime: 1, error: '' });
  send({ type: 'uploaded', id: 'p', token, ok: false, mtime: 5, error: 'HTTP 409: no' });
  const event = await up;
  assert.equal(event.ok, false);
  assert.equal(event.error, 'HTTP 409: no');
});

test('inboxUpload is keyed by the dockDrop token', async () => {
  const { bridge, posted, send } = fakeWindow();
  const up = bridge.inboxUpload({ token: 'T-1', upload_url: 'http://h/api/inbox/a.pdf' });
  assert.deepEqual(posted, [{ action: 'inboxUpload', token: 'T-1', upload_url: 'http://h/api/inbox/a.pdf' }]);
  send({ type: 'inboxUploaded', token: 'T-1', ok: true, name: 'a.pdf', error: '' });
  assert.equal((await up).name, 'a.pdf');
});

test('runClaude streams the lines of its own turn and resolves with claudeDone', async () => {
  const { bridge, posted, send } = fakeWindow();
  const lines = [];
  const turn = bridge.runClaude({ args: ['-p'], prompt_tail: 'hi' }, { onLine: (line) => lines.push(line) });
  assert.equal(posted[0].action, 'runClaude');
  assert.equal(posted[0].turn, turn.turn);
  assert.deepEqual(posted[0].args, ['-p']);
  send({ type: 'claudeLine', turn: 'someone-else', line: 'no' });
  send({ type: 'claudeLine', turn: turn.turn, line: 'one' });
  send({ type: 'claudeLine', turn: turn.turn, line: 'two' });
  turn.stop();
  assert.deepEqual(posted[1], { action: 'stopClaude', turn: turn.turn });
  send({ type: 'claudeDone', turn: turn.turn, code: 15, stderr: '' });
  send({ type: 'claudeLine', turn: turn.turn, line: 'after' });
  assert.equal((await turn.done).code, 15);
  assert.deepEqual(lines, ['one', 'two']);
});

test('outside Orvane nothing is posted and requests reject as unavailable', async () => {
  const { bridge } = fakeWindow({ inOrvane: false });
  assert.equal(bridge.available, false);
  assert.equal(bridge.caps, null);
  assert.equal(bridge.hello('demo'), false);
  await assert.rejects(bridge.openPdf({ id: 'a' }), (err) => err.code === 'unavailable');
  await assert.rejects(bridge.runClaude({ args: [] }).done, (err) => err.code === 'unavailable');
});

test('sparQuote hands quotes to the page', () => {
  const { win, bridge } = fakeWindow();
  const quotes = [];
  bridge.onSparQuote((text) => quotes.push(text));
  win.sparQuote('a "quoted"\npassage');
  assert.deepEqual(quotes, ['a "quoted"\npassage']);
});

test('every event type has a named subscription', () => {
  const { bridge, send } = fakeWindow();
  for (const type of bridge.EVENT_TYPES) {
    const name = 'on' + type[0].toUpperCase() + type.slice(1);
    let got = null;
    bridge[name]((e) => { got = e; });
    send({ type });
    assert.equal(got && got.type, type, name);
  }
});

test('a paper from the site listing can be passed as it is: pdf_url is the url', () => {
  const { bridge, posted } = fakeWindow();
  const paper = { id: 'cs/0101123', pdf_url: 'http://127.0.0.1:8000/api/papers/cs/0101123/pdf', etag: 'e1', title: 'T' };
  bridge.openPdf(paper);
  bridge.previewSplit(paper);
  assert.deepEqual(posted, [
    { action: 'openPdf', id: 'cs/0101123', url: paper.pdf_url, etag: 'e1' },
    { action: 'previewSplit', id: 'cs/0101123', url: paper.pdf_url, etag: 'e1' },
  ]);
});
