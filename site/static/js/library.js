/*
 * The library page, which is also the quick panel's page.
 *
 * Orvane loads "/" in the library window and in the quick panel; with
 * "?add=<text>" the panel brings a passage selected in another program, and
 * the page offers to keep it as a note on a paper. Everything that touches
 * local files goes through the bridge; in a plain browser those controls
 * explain that they need Orvane, and the rest of the library still works.
 */
(function () {
  'use strict';

  const { h, notify, formatSize, formatTime, debounce, errorText } = OrvaneSite.ui;
  const api = OrvaneSite.api;
  const bridge = window.OrvaneBridge;
  const inOrvane = bridge.available;
  const addText = new URLSearchParams(location.search).get('add') || '';

  const state = {
    papers: [],
    results: null, // search results (papers with "match"), or null for the whole list
    query: '',
    agentPath: (bridge.caps && bridge.caps.claude) || '',
    rowStatus: new Map(), // id -> {text, kind}
    quotes: new Map(), // id -> [{text, page, key}]
    expanded: new Set(),
    drops: new Map(), // dockDrop token -> {name, size, phase, error, stored}
    inbox: [],
    noteSavedTo: null,
  };

  const paperById = (id) => state.papers.find((p) => p.id === id) || null;
  const el = (id) => document.getElementById(id);

  const sync = OrvaneSite.createSync({
    bridge,
    getPaper: paperById,
    refreshPapers: () => loadPapers().then(() => state.papers),
    onChange: (id) => updateRow(id),
    onUnknown: (event) => notify(`A local PDF changed for "${event.id}", which is not in this library.`,
      { kind: 'info' }),
  });

  // ----- loading -----------------------------------------------------------

  async function loadPapers() {
    state.papers = await api.papers();
    if (state.query) await runSearch(state.query);
    else renderList();
  }

  async function loadInbox() {
    try {
      state.inbox = await api.inbox();
    } catch (err) {
      state.inbox = [];
      notify(`The inbox could not be read: ${errorText(err)}`, { kind: 'error' });
    }
    renderInbox();
  }

  async function runSearch(query) {
    state.query = query;
    if (!query.trim()) {
      state.results = null;
      renderList();
      return;
    }
    try {
      const found = await api.papers(query);
      if (state.query !== query) return; // a newer search is under way
      state.results = found;
    } catch (err) {
      notify(`Search failed: ${errorText(err)}`, { kind: 'error' });
      state.results = [];
    }
    renderList();
  }

  // ----- the header, the browser note, the footer ----------------------------

  function renderStatus() {
    const box = el('status');
    box.replaceChildren();
    const caps = bridge.caps;
    if (!inOrvane) {
      box.append(h('span', { class: 'pill', title: 'Local PDFs, drags and the agent need the Orvane app' },
        'Browser'));
      return;
    }
    box.append(h('span', { class: 'pill', title: caps ? `Orvane ${caps.version}, build ${caps.build}` : 'Orvane' },
      caps ? `Orvane ${caps.version}` : 'Orvane'));
    box.append(state.agentPath
      ? h('span', { class: 'pill ok', title: `Agent: ${state.agentPath}` }, h('span', { class: 'dot' }), 'Agent ready')
      : h('span', { class: 'pill', title: 'Claude Code was not found on this computer' },
        h('span', { class: 'dot off' }), 'No agent'));
  }

  function renderChrome() {
    renderStatus();
    const note = el('browser-note');
    if (!inOrvane) {
      note.hidden = false;
      note.replaceChildren(
        h('h2', {}, 'Open this library in Orvane'),
        h('p', {}, 'You are using the library in a web browser. Reading and editing PDFs as local files, ',
          'dragging them into other programs, keeping your edits in sync and sparring with the agent ',
          'about a paper need the Orvane desktop app. Here you can search, read notes and download PDFs.'));
    }
    const caps = bridge.caps;
    el('footer').textContent = caps
      ? `Orvane ${caps.version} \u00b7 build ${caps.build}`
      : 'Reference library site \u00b7 local PDFs need Orvane';
    const close = el('close-panel');
    close.hidden = !inOrvane;
    close.addEventListener('click', () => bridge.close());
  }

  // ----- the "add a note" card (quick panel with ?add=) ----------------------

  async function renderAddCard() {
    const card = el('add-card');
    if (!addText) return;
    card.hidden = false;
    if (state.noteSavedTo) {
      const paper = state.noteSavedTo;
      card.replaceChildren(
        h('h2', {}, 'Note added'),
        h('p', {}, 'The passage is now a note on ', h('strong', {}, paper.title), '.'),
        h('div', { class: 'buttons' },
          inOrvane ? h('button', { class: 'primary', type: 'button', onclick: () => bridge.close() }, 'Close panel') : null,
          h('button', { type: 'button', onclick: () => focusPaper(paper.id) }, 'Show the paper')));
      return;
    }
    const comment = h('textarea', { id: 'note-comment', rows: '2', placeholder: 'Your comment (optional)' });
    const suggestion = h('p', { class: 'suggestion muted' }, 'Looking for the paper this passage comes from\u2026');
    card.replaceChildren(
      h('h2', {}, 'Add a note'),
      h('blockquote', { class: 'passage' }, addText),
      comment,
      suggestion,
      h('p', { class: 'hint muted' }, 'Or choose any paper below with \u201cAdd here\u201d.'));
    // Orvane leaves the search field alone when it brings a passage: the
    // comment is where typing goes.
    comment.focus();
    try {
      const found = await api.papers(addText.slice(0, 300));
      const best = found[0];
      if (best) {
        suggestion.replaceChildren('Found in ', h('strong', {}, best.title), '  ',
          h('button', { class: 'primary', type: 'button', onclick: () => saveNote(best) }, 'Add to this paper'));
      } else {
        suggestion.textContent = 'No paper in the library contains this passage.';
      }
    } catch (err) {
      suggestion.textContent = `Could not look for the passage: ${errorText(err)}`;
    }
  }

  async function saveNote(paper, quote) {
    const body = quote
      ? { text: quote.text, page: quote.page || 0, source: 'quote' }
      : { text: addText, comment: (el('note-comment') || {}).value || '', source: 'panel' };
    try {
      await api.addNote(paper, body);
    } catch (err) {
      notify(`The note could not be saved: ${errorText(err)}`, { kind: 'error' });
      return false;
    }
    if (!quote) {
      state.noteSavedTo = paper;
      renderAddCard();
    }
    state.expanded.add(paper.id);
    notify(`Note added to \u201c${paper.title}\u201d.`, { kind: 'success', timeout: 3000 });
    await loadPapers();
    return true;
  }

  // ----- the inbox -----------------------------------------------------------

  function renderInbox() {
    const card = el('inbox');
    const drops = [...state.drops.entries()].filter(([, d]) => d.phase !== 'dismissed');
    // The quick panel with a passage to add is about that passage: the inbox
    // shows there only for a fresh drop.
    const files = addText ? [] : state.inbox;
    card.hidden = drops.length === 0 && files.length === 0;
    if (card.hidden) return;
    const dropRows = drops.map(([token, drop]) => h('li', { class: 'inbox-item drop' },
      h('div', { class: 'grow' },
        h('div', { class: 'name' }, drop.name),
        h('div', { class: 'muted small' }, dropLine(drop))),
      drop.phase === 'offered'
        ? h('div', { class: 'buttons' },
          h('button', { class: 'primary', type: 'button', onclick: () => uploadDrop(token) }, 'Put in inbox'),
          h('button', { type: 'button', onclick: () => { drop.phase = 'dismissed'; renderInbox(); } }, 'Dismiss'))
        : (drop.phase === 'uploading' ? h('span', { class: 'spinner', 'aria-label': 'Uploading' }) : null)));
    const fileRows = files.map((item) => h('li', { class: 'inbox-item' },
      h('div', { class: 'grow' },
        h('a', { class: 'name', href: item.url, target: '_blank', rel: 'noopener' }, item.name),
        h('div', { class: 'muted small' }, `${formatSize(item.size)} \u00b7 received ${formatTime(item.received)}`)),
      h('div', { class: 'buttons' },
        h('button', { type: 'button', onclick: () => importItem(item) }, 'Add to library'),
        h('button', { class: 'quiet', type: 'button', title: 'Delete from the inbox', onclick: () => deleteItem(item) },
          'Delete'))));
    card.replaceChildren(
      h('div', { class: 'card-head' }, h('h2', {}, 'Inbox'),
        files.length ? h('span', { class: 'muted' }, files.length === 1 ? '1 file' : `${files.length} files`) : null),
      h('ul', { class: 'inbox-list' }, dropRows, fileRows));
  }

  function dropLine(drop) {
    const size = formatSize(drop.size);
    switch (drop.phase) {
      case 'offered': return `${size} \u00b7 dropped on Orvane`;
      case 'uploading': return `${size} \u00b7 uploading to the inbox\u2026`;
      case 'done': return `${size} \u00b7 in the inbox`;
      default: return `${size} \u00b7 upload failed: ${drop.error}. Drop the file on Orvane again to retry.`;
    }
  }

  function uploadDrop(token) {
    const drop = state.drops.get(token);
    drop.phase = 'uploading';
    renderInbox();
    bridge.inboxUpload({ token, upload_url: api.inboxUploadUrl(drop.name) })
      .catch((err) => inboxUploaded({ token, ok: false, name: drop.name, error: errorText(err) }));
  }

  function inboxUploaded(event) {
    const drop = state.drops.get(event.token);
    if (!drop || drop.phase === 'done' || drop.phase === 'failed') return;
    drop.phase = event.ok ? 'done' : 'failed';
    drop.error = event.error || 'unknown error';
    if (event.ok) {
      notify(`${event.name} is in the inbox.`, { kind: 'success', timeout: 3000 });
      // The file now shows in the inbox list itself; the drop row has done its job.
      state.drops.delete(event.token);
      loadInbox();
    } else {
      notify(`${event.name} could not be put in the inbox: ${drop.error}`, { kind: 'error' });
      renderInbox();
    }
  }

  async function importItem(item) {
    try {
      const paper = await api.importInbox(item);
      notify(`\u201c${paper.title}\u201d is now in the library.`, { kind: 'success', timeout: 3000 });
    } catch (err) {
      notify(`${item.name} could not be added: ${errorText(err)}`, { kind: 'error' });
    }
    await Promise.all([loadInbox(), loadPapers()]);
  }

  async function deleteItem(item) {
    try {
      await api.deleteInbox(item);
    } catch (err) {
      notify(`${item.name} could not be deleted: ${errorText(err)}`, { kind: 'error' });
    }
    await loadInbox();
  }

  // ----- the paper list ------------------------------------------------------

  function renderList() {
    const list = el('papers');
    const shown = state.results || state.papers;
    list.replaceChildren(...shown.map((paper) => renderPaper(paper)));
    el('list-title').textContent = state.results ? 'Search results' : 'Papers';
    el('list-count').textContent = state.results
      ? `${shown.length} of ${state.papers.length}`
      : (shown.length === 1 ? '1 paper' : `${shown.length} papers`);
    const empty = el('empty');
    empty.hidden = shown.length > 0;
    empty.textContent = state.results ? `Nothing in the library matches \u201c${state.query}\u201d.` : 'The library is empty.';
  }

  function syncBadge(id) {
    const s = sync.get(id);
    if (!s) return null;
    switch (s.phase) {
      case 'uploading':
        return h('span', { class: 'badge busy' }, h('span', { class: 'spinner small' }), 'Uploading your edit');
      case 'confirming':
        return h('span', { class: 'badge busy' }, h('span', { class: 'spinner small' }), 'Confirming');
      case 'synced':
        return h('span', { class: 'badge ok', title: `etag ${s.etag}` }, `Synced ${formatTime(s.at)}`);
      case 'failed':
        return h('span', { class: 'badge error', title: s.error }, 'Not synced');
      default:
        return null;
    }
  }

  function syncDetail(id) {
    const s = sync.get(id);
    if (!s) return null;
    const size = s.size ? ` (${formatSize(s.size)})` : '';
    const steps = {
      uploading: `Saved on this computer${size}; sending it to the library\u2026`,
      confirming: 'Sent; recording the new version\u2026',
      synced: 'Your local edit is now the library\u2019s version.',
    };
    if (s.phase === 'failed') {
      return h('div', { class: 'row-line error' }, `Your local edit could not be synced: ${s.error}  `,
        h('button', { class: 'link', type: 'button', onclick: () => sync.retry(id) }, 'Try again'));
    }
    return steps[s.phase] ? h('div', { class: 'row-line' }, steps[s.phase]) : null;
  }

  function actionButtons(paper) {
    const buttons = [];
    if (addText && !state.noteSavedTo) {
      buttons.push(h('button', { class: 'primary', type: 'button', onclick: () => saveNote(paper) }, 'Add here'));
    }
    if (!inOrvane) {
      buttons.push(h('a', { class: 'button', href: paper.pdf_url, target: '_blank', rel: 'noopener' }, 'Open PDF'));
      return buttons;
    }
    const open = h('button', { type: 'button', title: 'Open in the PDF viewer' }, 'Open');
    open.addEventListener('click', () => {
      open.disabled = true;
      setRowStatus(paper.id, 'Opening\u2026', 'busy');
      bridge.openPdf(paper)
        .catch(() => {}) // the "error" event handler reports it
        .finally(() => { open.disabled = false; });
    });
    buttons.push(open,
      h('button', { type: 'button', title: 'Show the file in the file manager', onclick: () => {
        setRowStatus(paper.id, 'Showing the file\u2026', 'busy', 3000);
        bridge.revealPdf(paper);
      } }, 'Reveal'),
      h('button', { type: 'button', class: 'read-beside',
        title: 'The PDF viewer on the left half of the screen, the sparring chat on the right',
        onclick: () => bridge.previewSplit(paper) },
        'Read beside the chat'),
      h('button', { type: 'button', title: 'Discuss this paper with the agent', onclick: () => bridge.spar(paper.id) },
        'Spar'));
    return buttons;
  }

  function dragHandle(paper) {
    const handle = h('div', { class: 'drag-handle', draggable: true, 'aria-label': 'Drag the PDF',
      title: inOrvane ? 'Drag the PDF into another program' : 'Drag the PDF\u2019s address' });
    handle.addEventListener('dragstart', (event) => {
      if (inOrvane) {
        // Orvane starts a drag of the local file itself.
        event.preventDefault();
        bridge.dragPdf(paper.id);
      } else {
        // A browser can only drag the address; the file itself needs Orvane.
        event.dataTransfer.setData('text/uri-list', paper.pdf_url);
        event.dataTransfer.setData('text/plain', paper.pdf_url);
      }
    });
    return handle;
  }

  function renderNotes(paper) {
    if (!paper.notes || paper.notes.length === 0) return null;
    return h('ul', { class: 'notes' }, paper.notes.map((note) => h('li', { class: 'note-item' },
      h('blockquote', {}, note.text),
      note.comment ? h('p', { class: 'comment' }, note.comment) : null,
      h('div', { class: 'muted small' },
        note.page ? `p. ${note.page} \u00b7 ` : '', formatTime(note.created), ' ',
        h('button', { class: 'link', type: 'button', onclick: async () => {
          try {
            await api.deleteNote(paper, note.id);
          } catch (err) {
            notify(`The note could not be deleted: ${errorText(err)}`, { kind: 'error' });
          }
          await loadPapers();
        } }, 'Delete')))));
  }

  function renderQuotes(paper) {
    const quotes = state.quotes.get(paper.id) || [];
    return quotes.map((quote) => h('div', { class: 'quote-card' },
      h('div', { class: 'quote-head' },
        h('strong', {}, 'Quote from the PDF'),
        h('span', { class: 'muted' }, quote.page > 0 ? `page ${quote.page}` : 'page unknown')),
      h('blockquote', {}, quote.text),
      h('div', { class: 'buttons' },
        h('button', { class: 'primary', type: 'button', onclick: async () => {
          if (await saveNote(paper, quote)) dropQuote(paper.id, quote);
        } }, 'Save as note'),
        h('button', { type: 'button', onclick: () => dropQuote(paper.id, quote) }, 'Dismiss'))));
  }

  function dropQuote(id, quote) {
    state.quotes.set(id, (state.quotes.get(id) || []).filter((q) => q !== quote));
    updateRow(id);
  }

  function renderPaper(paper) {
    const full = paperById(paper.id) || paper;
    const status = state.rowStatus.get(paper.id);
    const snippet = paper.match && paper.match.snippet && !paper.match.fields.includes('title')
      ? h('p', { class: 'snippet' }, paper.match.snippet) : null;
    const details = h('details', { class: 'abstract' }, h('summary', {}, 'Abstract'), h('p', {}, full.abstract || 'No abstract.'));
    details.open = state.expanded.has(paper.id);
    details.addEventListener('toggle', () => {
      if (details.open) state.expanded.add(paper.id);
      else state.expanded.delete(paper.id);
    });
    const byline = [full.authors.join(', '), full.year, full.venue].filter(Boolean).join(' \u00b7 ');
    return h('li', { class: 'paper', dataset: { id: paper.id } },
      dragHandle(full),
      h('div', { class: 'paper-main' },
        h('div', { class: 'title' }, full.title),
        h('div', { class: 'byline muted' }, byline),
        h('div', { class: 'meta' }, h('code', {}, full.id), h('span', { class: 'muted small' }, formatSize(full.size)),
          syncBadge(paper.id)),
        snippet,
        syncDetail(paper.id),
        status ? h('div', { class: `row-line ${status.kind}` }, status.text) : null,
        renderQuotes(full),
        details,
        renderNotes(full)),
      h('div', { class: 'actions' }, actionButtons(full)));
  }

  /** Re-render one row in place (sync and status changes), keeping the rest. */
  function updateRow(id) {
    const old = el('papers').querySelector(`li.paper[data-id="${CSS.escape(id)}"]`);
    if (!old) return;
    const shown = (state.results || state.papers).find((p) => p.id === id);
    if (shown) old.replaceWith(renderPaper(shown));
  }

  function setRowStatus(id, text, kind, clearAfterMs) {
    state.rowStatus.set(id, { text, kind });
    updateRow(id);
    if (clearAfterMs) {
      setTimeout(() => {
        const current = state.rowStatus.get(id);
        if (current && current.text === text) {
          state.rowStatus.delete(id);
          updateRow(id);
        }
      }, clearAfterMs);
    }
  }

  function focusPaper(id) {
    if (state.results && !state.results.some((p) => p.id === id)) {
      el('quick-search').value = '';
      state.query = '';
      state.results = null;
      renderList();
    }
    const row = el('papers').querySelector(`li.paper[data-id="${CSS.escape(id)}"]`);
    if (!row) return;
    row.scrollIntoView({ block: 'center', behavior: 'smooth' });
    row.classList.add('flash');
    setTimeout(() => row.classList.remove('flash'), 1600);
  }

  // ----- events from Orvane ----------------------------------------------------

  function subscribe() {
    bridge.onPdfOpened((e) => setRowStatus(e.id, 'Opened in the PDF viewer.', 'ok', 4000));
    bridge.onPdfReady((e) => setRowStatus(e.id, 'The PDF is on this computer.', 'ok', 4000));
    bridge.onPdfNotReady((e) => setRowStatus(e.id,
      'The PDF is not on this computer yet: open it once, then drag it.', 'warn', 6000));
    bridge.onError((e) => {
      const paper = e.id ? paperById(e.id) : null;
      if (paper) setRowStatus(e.id, e.message, 'error', 15000);
      notify(e.message, { kind: 'error', title: paper ? paper.title : undefined });
    });
    bridge.onClaudeStatus((e) => {
      state.agentPath = e.path || '';
      renderStatus();
    });
    bridge.onDockDrop((e) => {
      state.drops.set(e.token, { name: e.name, size: e.size, phase: 'offered', error: '' });
      renderInbox();
      el('inbox').scrollIntoView({ block: 'nearest', behavior: 'smooth' });
    });
    bridge.onInboxUploaded(inboxUploaded);
    bridge.onFriendQuote((e) => {
      const paper = paperById(e.id);
      if (!paper) {
        notify(`A quote arrived for \u201c${e.id}\u201d, which is not in this library.`, { kind: 'error' });
        return;
      }
      const quotes = state.quotes.get(e.id) || [];
      quotes.push({ text: e.text, page: e.page });
      state.quotes.set(e.id, quotes);
      updateRow(e.id);
      focusPaper(e.id);
    });
    // Update stages and outcomes show in the update banner.
    const updates = OrvaneSite.createUpdateBanner({ bridge, button: el('update-banner'), fetchOffer: api.update });
    updates.check().then((shown) => document.body.classList.toggle('has-update-banner', shown));
  }

  // ----- start -----------------------------------------------------------------

  function wireSearch() {
    const input = el('quick-search');
    const search = debounce((value) => runSearch(value), 150);
    input.addEventListener('input', () => search(input.value));
    input.addEventListener('keydown', (event) => {
      if (event.key === 'Escape' && input.value) {
        input.value = '';
        runSearch('');
        event.stopPropagation();
      } else if (event.key === 'Enter' && inOrvane && !addText) {
        const first = (state.results || state.papers)[0];
        if (first) bridge.openPdf(paperById(first.id) || first).catch(() => {});
      }
    });
    document.addEventListener('keydown', (event) => {
      const typing = /^(INPUT|TEXTAREA|SELECT)$/.test(document.activeElement.tagName);
      if (event.key === '/' && !typing) {
        event.preventDefault();
        input.focus();
      }
    });
  }

  async function start() {
    renderChrome();
    wireSearch();
    subscribe(); // before hello: Orvane flushes its held-back events right after it
    try {
      await loadPapers();
    } catch (err) {
      el('empty').hidden = false;
      el('empty').textContent = `The library could not be loaded: ${errorText(err)}`;
    }
    loadInbox();
    renderAddCard();
    let account = 'demo';
    try {
      account = (await api.me()).account || account;
    } catch (err) {
      // The site answers /api/me with the demo account; if it cannot, say
      // hello with that name anyway so that Orvane is not left waiting.
    }
    bridge.hello(account);
  }

  start();
})();
