/*
 * The "Update available" banner of the library page.
 *
 * Inside an installed Orvane, window.panelCaps.release names the release it
 * runs. The site says which release it offers at /api/update; when that is
 * a newer one, a full-width button at the top of the window offers it.
 * Clicking sends "updateApp" with the archive's address; Orvane reports each
 * stage ("updateProgress") and the outcome ("updateDone"), shown in the
 * button. After a failure the button can be clicked again.
 *
 * A build-tree run (release null), a plain browser (no panelCaps), an
 * unreachable /api/update or an answer that is not an offer leave it hidden.
 */
(function (root, factory) {
  'use strict';
  if (typeof module === 'object' && module.exports) module.exports = factory;
  else (root.OrvaneSite = root.OrvaneSite || {}).createUpdateBanner = factory;
})(typeof self !== 'undefined' ? self : this, function createUpdateBanner(deps) {
  'use strict';

  // button: the <button id="update-banner">; fetchOffer: () => Promise of
  // the parsed /api/update answer.
  const { bridge, button, fetchOffer } = deps;
  let offer = null; // {version, url}
  let busy = false;

  function show(text, { disabled }) {
    button.textContent = text;
    button.disabled = disabled;
    button.hidden = false;
  }

  // The site's release order: numbers part by part (leading zeros aside,
  // compared as digit strings so that no size overflows), then a version
  // without a suffix after the same one with a suffix, then suffixes as text.
  // Orvane refuses an older download, so only a newer one is offered.
  function versionKey(version) {
    const dash = version.indexOf('-');
    const numbers = dash < 0 ? version : version.slice(0, dash);
    const suffix = dash < 0 ? '' : version.slice(dash + 1);
    return { parts: numbers.split('.').map((part) => part.replace(/^0+/, '')), suffix };
  }

  function compareText(a, b) {
    return a < b ? -1 : a > b ? 1 : 0;
  }

  function compareVersions(a, b) {
    const x = versionKey(a);
    const y = versionKey(b);
    for (let i = 0; i < Math.min(x.parts.length, y.parts.length); i++) {
      const p = x.parts[i];
      const q = y.parts[i];
      if (p.length !== q.length) return p.length - q.length;
      const order = compareText(p, q);
      if (order) return order;
    }
    if (x.parts.length !== y.parts.length) return x.parts.length - y.parts.length;
    if ((x.suffix === '') !== (y.suffix === '')) return x.suffix === '' ? 1 : -1;
    return compareText(x.suffix, y.suffix);
  }

  function offerText() {
    return `Update available: ${offer.version}`;
  }

  /** Ask the site what it offers; show the banner when it is newer than ours. */
  async function check() {
    const caps = bridge.caps;
    const release = caps && typeof caps.release === 'string' ? caps.release : null;
    if (release === null || !bridge.available) return false;
    let answer;
    try {
      answer = await fetchOffer();
    } catch (err) {
      return false; // no offer to be had; the page works on without one
    }
    if (!answer || typeof answer !== 'object' || typeof answer.version !== 'string' || !answer.version ||
        typeof answer.url !== 'string' || !answer.url || compareVersions(answer.version, release) <= 0) {
      return false;
    }
    offer = { version: answer.version, url: answer.url };
    if (!busy) show(offerText(), { disabled: false });
    return true;
  }

  function start() {
    if (!offer || busy) return;
    busy = true;
    show(`${offerText()} \u00b7 starting\u2026`, { disabled: true });
    bridge.updateApp(offer.url);
  }

  function progress(event) {
    const stage = typeof event.stage === 'string' ? event.stage : '';
    busy = true;
    const head = offer ? `Updating to ${offer.version}` : 'Updating Orvane';
    show(`${head}: ${stage}\u2026`, { disabled: true });
  }

  function done(event) {
    busy = false;
    if (event.ok === true) {
      show('Installed, restarting\u2026', { disabled: true });
      return;
    }
    const error = typeof event.error === 'string' && event.error ? event.error : 'unknown error';
    if (offer) show(`${error} \u00b7 ${offerText()}: click to try again`, { disabled: false });
    else show(`The update failed: ${error}`, { disabled: true });
  }

  button.addEventListener('click', start);
  bridge.onUpdateProgress(progress);
  bridge.onUpdateDone(done);
  return { check, get offer() { return offer; } };
});
