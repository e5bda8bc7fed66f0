/*
 * Reading one agent turn's output: the JSON lines that Claude Code prints
 * with `-p --output-format stream-json --verbose`, one "claudeLine" each.
 *
 *   {"type":"system","subtype":"init","session_id":...,"model":...}
 *   {"type":"assistant","message":{"content":[{"type":"text","text":...} |
 *                                             {"type":"tool_use","id","name","input"}]}}
 *   {"type":"user","message":{"content":[{"type":"tool_result","tool_use_id",...}]}}
 *   {"type":"result","is_error":bool,"result":...,"session_id":...,"duration_ms":...}
 *
 * The reader turns them into display items: text, compact tool uses, raw
 * lines (anything that is not JSON) and errors. It also keeps the session id
 * that the next turn resumes. Pure logic, no DOM: the page renders `items`.
 */
(function (root, factory) {
  'use strict';
  if (typeof module === 'object' && module.exports) module.exports = factory();
  else (root.OrvaneSite = root.OrvaneSite || {}).stream = factory();
})(typeof self !== 'undefined' ? self : this, function () {
  'use strict';

  const SUMMARY_LENGTH = 80;

  function shorten(text, length) {
    const flat = String(text).replace(/\s+/g, ' ').trim();
    return flat.length > length ? `${flat.slice(0, length - 1)}\u2026` : flat;
  }

  /** One line that says what a tool was asked to do. */
  function toolSummary(name, input) {
    const args = input && typeof input === 'object' ? input : {};
    const pick = args.file_path || args.path || args.command || args.pattern || args.query ||
      args.url || args.description || args.prompt;
    if (typeof pick === 'string') {
      const isPath = pick === args.file_path || pick === args.path;
      return shorten(isPath ? pick.split('/').pop() || pick : pick, SUMMARY_LENGTH);
    }
    const json = JSON.stringify(args);
    return json === '{}' ? '' : shorten(json, SUMMARY_LENGTH);
  }

  function textOfToolResult(content) {
    if (typeof content === 'string') return content;
    if (Array.isArray(content)) {
      return content.map((part) => (part && typeof part.text === 'string' ? part.text : '')).join('');
    }
    return '';
  }

  function createTurnReader() {
    const state = {
      items: [],
      sessionId: '',
      model: '',
      finished: false,
      isError: false,
      durationMs: null,
      costUsd: null,
    };
    const tools = new Map(); // tool_use id -> item

    function lastText() {
      for (let i = state.items.length - 1; i >= 0; i -= 1) {
        if (state.items[i].kind === 'text') return state.items[i].text;
      }
      return '';
    }

    function onAssistant(message) {
      const content = message && Array.isArray(message.content) ? message.content : [];
      let changed = false;
      for (const block of content) {
        if (!block || typeof block !== 'object') continue;
        if (block.type === 'text' && typeof block.text === 'string' && block.text) {
          state.items.push({ kind: 'text', text: block.text });
          changed = true;
        } else if (block.type === 'tool_use') {
          const item = { kind: 'tool', id: block.id || '', name: String(block.name || 'tool'),
            summary: toolSummary(block.name, block.input), status: 'running' };
          state.items.push(item);
          if (item.id) tools.set(item.id, item);
          changed = true;
        }
        // "thinking" and other block types are not shown.
      }
      return changed;
    }

    function onUser(message) {
      const content = message && Array.isArray(message.content) ? message.content : [];
      let changed = false;
      for (const block of content) {
        if (!block || block.type !== 'tool_result') continue;
        const item = tools.get(block.tool_use_id);
        if (!item) continue;
        item.status = block.is_error ? 'error' : 'done';
        item.resultLength = textOfToolResult(block.content).length;
        changed = true;
      }
      return changed;
    }

    function onResult(obj) {
      state.finished = true;
      if (typeof obj.session_id === 'string' && obj.session_id) state.sessionId = obj.session_id;
      if (typeof obj.duration_ms === 'number') state.durationMs = obj.duration_ms;
      if (typeof obj.total_cost_usd === 'number') state.costUsd = obj.total_cost_usd;
      const result = typeof obj.result === 'string' ? obj.result : '';
      if (obj.is_error) {
        state.isError = true;
        const text = result || `The agent stopped with an error (${obj.subtype || 'unknown'})`;
        // A failing run often says the same thing as text first; say it once.
        if (text !== lastText()) state.items.push({ kind: 'error', text });
        else state.items[state.items.length - 1] = { kind: 'error', text };
      } else if (result && !state.items.some((item) => item.kind === 'text')) {
        state.items.push({ kind: 'text', text: result });
      }
      return true;
    }

    /** Take one output line; answers whether the display changed. */
    function feed(line) {
      let obj;
      try {
        obj = JSON.parse(line);
      } catch (err) {
        obj = undefined;
      }
      if (!obj || typeof obj !== 'object' || Array.isArray(obj)) {
        state.items.push({ kind: 'raw', text: String(line) });
        return true;
      }
      switch (obj.type) {
        case 'system':
          if (typeof obj.session_id === 'string' && obj.session_id) state.sessionId = obj.session_id;
          if (typeof obj.model === 'string') state.model = obj.model;
          return false;
        case 'assistant':
          return onAssistant(obj.message);
        case 'user':
          return onUser(obj.message);
        case 'result':
          return onResult(obj);
        default:
          // Other message kinds (progress, rate limits...) carry nothing to show.
          return false;
      }
    }

    return { state, feed };
  }

  return { createTurnReader, toolSummary };
});
