/*
 * The sparring page: a conversation with the agent about one paper.
 *
 * Address: /?sparwin=1#spar/<paper id> (the id percent-encoded, its "/"
 * kept). Each message the user sends is one agent turn ("runClaude"): the
 * first turn lays down the paper's text as paper.txt and puts it in the
 * prompt; later turns resume the agent's session (its id comes with the
 * first turn's output) and send only the message. The conversation and its
 * session id are kept in localStorage per paper, so closing and reopening
 * the window continues where it stopped.
 */
(function () {
  'use strict';

  const { h, notify, banner, formatSize, errorText } = OrvaneSite.ui;
  const api = OrvaneSite.api;
  const bridge = window.OrvaneBridge;
  const inOrvane = bridge.available;

  const el = (id) => document.getElementById(id);
  const STORAGE_PREFIX = 'orvane.spar.';
  const STOPPED_CODES = new Set([15, 143]); // SIGTERM, as a signal number or a shell status
  const SUGGESTIONS = [
    'What is the central claim, in two sentences?',
    'Which assumption is the weakest, and what breaks if it fails?',
    'What experiment would most convincingly refute this paper?',
  ];

  const state = {
    paperId: paperIdFromHash(),
    paper: null,
    papers: [],
    convo: { sessionId: '', entries: [] },
    current: null, // {turn, stop, entry, stopRequested}
    agentPath: (bridge.caps && bridge.caps.claude) || '',
  };

  function paperIdFromHash() {
    const match = location.hash.match(/^#spar\/(.+)$/);
    if (!match) return '';
    try {
      return decodeURIComponent(match[1]);
    } catch (err) {
      return match[1];
    }
  }

  // ----- the conversation, kept per paper -----------------------------------

  function loadConvo(id) {
    try {
      const saved = JSON.parse(localStorage.getItem(STORAGE_PREFIX + id) || 'null');
      if (saved && Array.isArray(saved.entries)) {
        // A turn that was running when the page went away never finished here.
        for (const entry of saved.entries) {
          if (entry.running) {
            entry.running = false;
            entry.interrupted = true;
          }
        }
        return { sessionId: saved.sessionId || '', entries: saved.entries };
      }
    } catch (err) {
      // Unreadable storage: start a fresh conversation.
    }
    return { sessionId: '', entries: [] };
  }

  function saveConvo() {
    if (!state.paperId) return;
    try {
      localStorage.setItem(STORAGE_PREFIX + state.paperId, JSON.stringify(state.convo));
    } catch (err) {
      // Storage full or disabled: the conversation still works, unsaved.
    }
  }

  // ----- building a turn -------------------------------------------------------

  function promptHead(paper) {
    const authors = paper.authors.length ? ` by ${paper.authors.join(', ')}` : '';
    const year = paper.year ? ` (${paper.year})` : '';
    return `You are a sparring partner for a researcher who is reading the paper "${paper.title}"${authors}${year}, ` +
      `library id ${paper.id}. Discuss it critically and concretely: question its assumptions, point to the ` +
      'passages you mean, and suggest checks the reader could make. Keep answers short unless asked for depth. ' +
      'The full text of the paper follows; it is also in the file paper.txt in the working folder.\n\n';
  }

  function turnBody(paper, message) {
    const args = ['-p', '--output-format', 'stream-json', '--verbose'];
    const body = {
      args,
      // Laid down on every turn, so the agent can re-read the paper with its tools.
      files: [{ name: 'paper.txt', url: bridge.absoluteUrl(paper.text_url) }],
      prompt_tail: message,
    };
    if (state.convo.sessionId) {
      // The resumed session already holds the paper; send the message alone.
      args.push('--resume', state.convo.sessionId);
    } else {
      body.prompt_head = promptHead(paper);
      body.text_file = 'paper.txt';
    }
    return body;
  }

  function send(message) {
    const text = message.trim();
    if (!text || state.current || !state.paper || !inOrvane) return;
    const user = { role: 'user', text };
    const reply = { role: 'assistant', items: [], running: true };
    state.convo.entries.push(user, reply);
    const reader = OrvaneSite.stream.createTurnReader();
    const turn = bridge.runClaude(turnBody(state.paper, text), {
      onLine: (line) => {
        if (reader.feed(line)) {
          reply.items = reader.state.items.slice();
          renderTranscript();
        }
      },
    });
    state.current = { turn: turn.turn, stop: turn.stop, entry: reply, stopRequested: false };
    saveConvo();
    renderTranscript();
    renderComposer();
    turn.done.then((done) => finishTurn(reply, reader, done),
      (err) => finishTurn(reply, reader, { code: -1, stderr: errorText(err) }));
  }

  function finishTurn(entry, reader, done) {
    const stopped = state.current && state.current.stopRequested;
    entry.items = reader.state.items.slice();
    entry.running = false;
    if (reader.state.sessionId) state.convo.sessionId = reader.state.sessionId;
    if (reader.state.durationMs !== null) entry.durationMs = reader.state.durationMs;
    if (done.code !== 0) {
      if (stopped && STOPPED_CODES.has(done.code)) entry.stopped = true;
      else entry.failure = { code: done.code, stderr: done.stderr || '' };
    } else if (entry.items.length === 0) {
      entry.items.push({ kind: 'raw', text: 'The agent finished without an answer.' });
    }
    state.current = null;
    saveConvo();
    renderTranscript();
    renderComposer();
    el('message').focus();
  }

  function stop() {
    if (!state.current) return;
    state.current.stopRequested = true;
    state.current.stop();
    el('stop').disabled = true;
  }

  // ----- rendering ---------------------------------------------------------------

  function renderItem(item) {
    switch (item.kind) {
      case 'text':
        return h('div', { class: 'msg-text' }, item.text);
      case 'tool': {
        const mark = { running: '\u2026', done: '\u2713', error: '\u2717' }[item.status] || '';
        return h('div', { class: `tool ${item.status}` }, h('span', { class: 'tool-name' }, item.name),
          item.summary ? h('span', { class: 'tool-summary' }, item.summary) : null,
          h('span', { class: 'tool-mark' }, mark));
      }
      case 'error':
        return h('div', { class: 'msg-error' }, item.text);
      default:
        return h('pre', { class: 'raw' }, item.text);
    }
  }

  function renderEntry(entry) {
    if (entry.role === 'user') return h('div', { class: 'msg user' }, h('div', { class: 'msg-text' }, entry.text));
    const parts = entry.items.map(renderItem);
    if (entry.running) parts.push(h('div', { class: 'typing', 'aria-label': 'The agent is working' }, h('span'), h('span'), h('span')));
    if (entry.stopped) parts.push(h('div', { class: 'msg-note muted' }, 'Stopped.'));
    if (entry.interrupted) parts.push(h('div', { class: 'msg-note muted' }, 'This turn was interrupted.'));
    if (entry.failure) {
      parts.push(h('div', { class: 'msg-error' }, `The agent ended with code ${entry.failure.code}.`,
        entry.failure.stderr ? h('pre', { class: 'stderr' }, entry.failure.stderr) : null));
    }
    if (entry.durationMs) parts.push(h('div', { class: 'msg-note muted small' }, `${(entry.durationMs / 1000).toFixed(1)} s`));
    return h('div', { class: 'msg assistant' }, parts);
  }

  function renderEmpty() {
    const paper = state.paper;
    if (!state.paperId) {
      return h('div', { class: 'empty-state' }, h('h2', {}, 'No paper chosen'),
        h('p', { class: 'muted' }, 'Open the sparring window from a paper in the library.'));
    }
    if (!paper) return h('div', { class: 'empty-state' }, h('p', { class: 'muted' }, 'Loading the paper\u2026'));
    return h('div', { class: 'empty-state' },
      h('h2', {}, 'Spar about this paper'),
      h('p', { class: 'muted' }, inOrvane
        ? 'The agent reads the paper\u2019s full text and argues with you about it. Try one of these:'
        : 'Sparring runs the Claude Code agent on your computer, so it needs the Orvane desktop app. ' +
          'Open this paper from the library in Orvane and choose \u201cSpar\u201d.'),
      inOrvane ? h('div', { class: 'suggestions' }, SUGGESTIONS.map((text) => h('button', {
        type: 'button', class: 'chip', onclick: () => send(text) }, text))) : null);
  }

  function renderTranscript() {
    const box = el('transcript');
    const nearBottom = box.scrollHeight - box.scrollTop - box.clientHeight < 80;
    box.replaceChildren(...(state.convo.entries.length ? state.convo.entries.map(renderEntry) : [renderEmpty()]));
    if (nearBottom) box.scrollTop = box.scrollHeight;
  }

  function renderComposer() {
    const running = Boolean(state.current);
    const ready = inOrvane && Boolean(state.paper);
    el('message').disabled = !ready;
    el('send').disabled = !ready || running;
    el('stop').hidden = !running;
    el('stop').disabled = false;
    el('new-conversation').disabled = running || state.convo.entries.length === 0;
    el('split').disabled = !inOrvane || !state.paper;
  }

  function renderHeader() {
    const paper = state.paper;
    el('paper-title').textContent = paper ? paper.title : (state.paperId || 'Sparring');
    el('paper-byline').textContent = paper
      ? [paper.authors.join(', '), paper.year, paper.id].filter(Boolean).join(' \u00b7 ') : '';
    document.title = paper ? `Sparring: ${paper.title}` : 'Sparring';
    const status = el('status');
    status.replaceChildren();
    if (!inOrvane) {
      status.append(h('span', { class: 'pill' }, 'Browser'));
    } else {
      status.append(state.agentPath
        ? h('span', { class: 'pill ok', title: `Agent: ${state.agentPath}` }, h('span', { class: 'dot' }), 'Agent ready')
        : h('span', { class: 'pill', title: 'Orvane has not found Claude Code; turns will say why they fail' },
          h('span', { class: 'dot off' }), 'No agent'));
    }
    el('close-spar').hidden = !inOrvane;
  }

  /** Orvane hands a quote over (⌥C in another program): put it in the message box. */
  function insertQuote(text) {
    const box = el('message');
    const quoted = text.trim().split('\n').map((line) => `> ${line}`).join('\n');
    const before = box.value.slice(0, box.selectionStart);
    const after = box.value.slice(box.selectionEnd);
    const lead = before && !before.endsWith('\n\n') ? (before.endsWith('\n') ? '\n' : '\n\n') : '';
    box.value = `${before}${lead}${quoted}\n\n${after}`;
    const caret = (before + lead + quoted).length + 2;
    box.focus();
    box.setSelectionRange(caret, caret);
  }

  // ----- events from Orvane ----------------------------------------------------------

  function syncLine(id, s) {
    const line = el('sync-line');
    const messages = {
      uploading: `Sending your edit of ${id} to the library\u2026`,
      confirming: `Recording the new version of ${id}\u2026`,
      synced: `Your edit of ${id} is synced.`,
      failed: `Your edit of ${id} could not be synced: ${s.error}`,
    };
    line.hidden = false;
    line.className = `sync-line ${s.phase === 'failed' ? 'error' : 'muted'}`;
    line.textContent = messages[s.phase] || '';
    if (s.phase === 'synced') setTimeout(() => { if (line.textContent === messages.synced) line.hidden = true; }, 4000);
  }

  function subscribe() {
    // Orvane sends events to the page that said hello last, which is this one
    // while the sparring window is open: finish syncs and take drops here too.
    OrvaneSite.createSync({
      bridge,
      getPaper: (id) => state.papers.find((p) => p.id === id) || null,
      refreshPapers: async () => (state.papers = await api.papers()),
      onChange: syncLine,
    });
    bridge.onClaudeStatus((e) => {
      state.agentPath = e.path || '';
      renderHeader();
    });
    bridge.onError((e) => notify(e.message, { kind: 'error' }));
    bridge.onDockDrop((e) => {
      const putInInbox = () => bridge.inboxUpload({ token: e.token, upload_url: api.inboxUploadUrl(e.name) })
        .then((done) => {
          if (done.ok) notify(`${done.name} is in the inbox.`, { kind: 'success' });
          else notify(`${done.name} could not be put in the inbox: ${done.error}`, { kind: 'error' });
        }, (err) => notify(errorText(err), { kind: 'error' }));
      notify(`${e.name} (${formatSize(e.size)}) was dropped on Orvane.`,
        { kind: 'info', timeout: 0, actions: [{ label: 'Put in inbox', onclick: putInInbox }] });
    });
    bridge.onUpdateProgress((e) => banner(`Updating Orvane: ${e.stage}\u2026`, 'info'));
    bridge.onUpdateDone((e) => banner(e.ok ? 'Orvane is updated and restarts now.'
      : `The update failed: ${e.error || 'unknown error'}`, e.ok ? 'success' : 'error'));
    bridge.onSparQuote(insertQuote);
  }

  // ----- start -----------------------------------------------------------------------

  function wire() {
    el('composer').addEventListener('submit', (event) => {
      event.preventDefault();
      const box = el('message');
      const text = box.value;
      if (!text.trim() || state.current) return;
      box.value = '';
      send(text);
    });
    el('message').addEventListener('keydown', (event) => {
      if (event.key === 'Enter' && !event.shiftKey && !event.isComposing) {
        event.preventDefault();
        el('composer').requestSubmit();
      }
    });
    el('stop').addEventListener('click', stop);
    el('close-spar').addEventListener('click', () => bridge.closeSpar());
    el('split').addEventListener('click', () => state.paper && bridge.previewSplit(state.paper));
    el('new-conversation').addEventListener('click', () => {
      state.convo = { sessionId: '', entries: [] };
      saveConvo();
      renderTranscript();
      renderComposer();
    });
    // Orvane reloads the page for another paper, but a changed fragment in a
    // browser should switch papers too.
    window.addEventListener('hashchange', () => location.reload());
  }

  async function start() {
    wire();
    subscribe(); // before hello: Orvane flushes its held-back events right after it
    state.convo = loadConvo(state.paperId);
    renderHeader();
    renderTranscript();
    renderComposer();
    try {
      state.papers = await api.papers();
      state.paper = state.papers.find((p) => p.id === state.paperId) || null;
      if (state.paperId && !state.paper) {
        notify(`There is no paper \u201c${state.paperId}\u201d in the library.`, { kind: 'error' });
      }
    } catch (err) {
      notify(`The library could not be loaded: ${errorText(err)}`, { kind: 'error' });
    }
    renderHeader();
    renderTranscript();
    renderComposer();
    let account = 'demo';
    try {
      account = (await api.me()).account || account;
    } catch (err) {
      // Say hello with the demo account anyway; see library.js.
    }
    bridge.hello(account);
    if (inOrvane && state.paper) el('message').focus();
  }

  start();
})();
