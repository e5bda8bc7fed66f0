'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const createUpdateBanner = require('../../static/js/update.js');
const { fakeWindow } = require('./helpers.js');

// The few things of a <button> the banner uses.
function fakeButton() {
  const listeners = [];
  return {
    hidden: true, disabled: false, textContent: '',
    addEventListener: (type, fn) => { if (type === 'click') listeners.push(fn); },
    click() { if (!this.disabled) listeners.forEach((fn) => fn()); },
  };
}

const OFFER = { version: '1.5.0', url: 'http://127.0.0.1:8000/releases/Orvane-1.5.0-linux-x86_64.zip', size: 9 };

function setup({ release = '1.4.0', inOrvane = true, fetchOffer = async () => OFFER } = {}) {
  const page = fakeWindow({ inOrvane });
  if (inOrvane && release !== undefined) page.win.panelCaps.release = release;
  const button = fakeButton();
  const banner = createUpdateBanner({ bridge: page.bridge, button, fetchOffer });
  return { ...page, button, banner };
}

test('hidden in a browser, with no panelCaps', async () => {
  let asked = false;
  const { button, banner } = setup({ inOrvane: false, fetchOffer: async () => { asked = true; return OFFER; } });
  assert.equal(await banner.check(), false);
  assert.equal(button.hidden, true);
  assert.equal(asked, false);
});

test('hidden when the release is null or not a string (a build-tree run)', async () => {
  for (const release of [null, 'absent', 15, { v: '1' }]) {
    const { button, banner, win } = setup({ release });
    if (release === 'absent') delete win.panelCaps.release;
    assert.equal(await banner.check(), false);
    assert.equal(button.hidden, true);
  }
});

test('hidden when the offered version is the running one', async () => {
  const { button, banner } = setup({ release: '1.5.0' });
  assert.equal(await banner.check(), false);
  assert.equal(button.hidden, true);
});

test('hidden when the offered version is older than the running one', async () => {
  for (const release of ['1.5.1', '1.10.0', '2.0', '1.5.0.1', '01.006.0']) {
    const { button, banner } = setup({ release });
    assert.equal(await banner.check(), false, release);
    assert.equal(button.hidden, true, release);
  }
});

test('shown only for a newer version, numbers compared part by part', async () => {
  const cases = [
    ['1.9.0', '1.10.0', true], ['1.5.0-rc1', '1.5.0', true], ['1.5.0', '1.5.0-rc1', false],
    ['1.5.0-rc1', '1.5.0-rc2', true], ['1.5', '1.5.0', true], ['9'.repeat(40), '1' + '0'.repeat(40), true],
    ['1.0', '1.0', false],
  ];
  for (const [release, offered, shown] of cases) {
    const { button, banner } = setup({ release, fetchOffer: async () => ({ ...OFFER, version: offered }) });
    assert.equal(await banner.check(), shown, `${release} -> ${offered}`);
    assert.equal(button.hidden, !shown, `${release} -> ${offered}`);
  }
});

test('hidden when /api/update fails or answers garbage', async () => {
  const answers = [
    async () => { throw new Error('HTTP 502'); },
    async () => { throw new SyntaxError('Unexpected token < in JSON'); },
    async () => null, async () => 'garbage', async () => [OFFER], async () => ({ version: null }),
    async () => ({ version: 7, url: OFFER.url }), async () => ({ version: '2.0' }),
    async () => ({ version: '', url: OFFER.url }), async () => ({ version: '2.0', url: 5 }),
  ];
  for (const fetchOffer of answers) {
    const { button, banner, posted } = setup({ fetchOffer });
    assert.equal(await banner.check(), false);
    assert.equal(button.hidden, true);
    button.click();
    assert.deepEqual(posted, []);
  }
});

test('shown when the site offers another version; a click posts updateApp and disables it', async () => {
  const { button, banner, posted } = setup();
  assert.equal(await banner.check(), true);
  assert.equal(button.hidden, false);
  assert.equal(button.disabled, false);
  assert.equal(button.textContent, 'Update available: 1.5.0');
  button.click();
  assert.deepEqual(posted, [{ action: 'updateApp', url: OFFER.url }]);
  assert.equal(button.disabled, true);
  button.click();
  assert.equal(posted.length, 1);
});

test('each stage shows, then success', async () => {
  const { button, banner, send } = setup();
  await banner.check();
  button.click();
  for (const stage of ['downloading', 'unpacking', 'checking signature', 'installing']) {
    send({ type: 'updateProgress', stage });
    assert.equal(button.textContent, `Updating to 1.5.0: ${stage}\u2026`);
    assert.equal(button.disabled, true);
  }
  send({ type: 'updateDone', ok: true });
  assert.equal(button.textContent, 'Installed, restarting\u2026');
  assert.equal(button.disabled, true);
});

test('a failure shows the error and the button comes back for another try', async () => {
  const { button, banner, send, posted } = setup();
  await banner.check();
  button.click();
  send({ type: 'updateProgress', stage: 'downloading' });
  send({ type: 'updateDone', ok: false, error: 'download failed (HTTP 404)' });
  assert.match(button.textContent, /^download failed \(HTTP 404\)/);
  assert.match(button.textContent, /try again/);
  assert.equal(button.disabled, false);
  assert.equal(button.hidden, false);
  button.click();
  assert.deepEqual(posted, [{ action: 'updateApp', url: OFFER.url }, { action: 'updateApp', url: OFFER.url }]);
});

test('hostile events do not break the banner or other events', async () => {
  const { button, banner, send, bridge } = setup();
  await banner.check();
  const others = [];
  bridge.onPdfOpened((e) => others.push(e.id));
  send({ type: 'updateProgress' });
  send({ type: 'updateProgress', stage: { toString: 'x' } });
  send({ type: 'updateDone', ok: 'yes', error: ['<img src=x>'] });
  assert.match(button.textContent, /^unknown error/);
  send({ type: 'pdfOpened', id: 'cs/0101123' });
  assert.deepEqual(others, ['cs/0101123']);
});
