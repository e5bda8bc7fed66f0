/*
 * The "Update available" banner of the library page.
 *
 * Inside an installed Orvane, window.panelCaps.release names the release it
 * runs. The site says which release it offers at /api/update; when that is
 * another one, a full-width button at the top of the window offers it.
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

  function offerText() {
    return `Update available: ${offer.version}`;
  }

  /** Ask the site what it offers; show the banner when it differs from ours. */
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
        typeof answer.url !== 'string' || !answer.url || answer.version === release) {
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
