'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { createTurnReader, toolSummary } = require('../../static/js/stream.js');

const line = (obj) => JSON.stringify(obj);

test('a full turn: session id, text, tool use with its result, final meta', () => {
  const { state, feed } = createTurnReader();
  assert.equal(feed(line({ type: 'system', subtype: 'init', session_id: 'S1', model: 'm' })), false);
  assert.equal(state.sessionId, 'S1');
  feed(line({ type: 'assistant', message: { content: [{ type: 'text', text: 'Let me read it.' }] } }));
  feed(line({ type: 'assistant', message: { content: [
    { type: 'tool_use', id: 'tu1', name: 'Read', input: { file_path: '/home/u/lib/.spar/paper.txt' } }] } }));
  assert.equal(state.items[1].status, 'running');
  feed(line({ type: 'user', message: { content: [{ type: 'tool_result', tool_use_id: 'tu1', content: 'abc' }] } }));
  feed(line({ type: 'assistant', message: { content: [{ type: 'text', text: 'The claim is X.' }] } }));
  feed(line({ type: 'result', subtype: 'success', is_error: false, result: 'The claim is X.', session_id: 'S1', duration_ms: 2100 }));
  assert.deepEqual(state.items.map((i) => i.kind), ['text', 'tool', 'text']);
  assert.deepEqual(state.items[1], { kind: 'tool', id: 'tu1', name: 'Read', summary: 'paper.txt', status: 'done', resultLength: 3 });
  assert.equal(state.finished, true);
  assert.equal(state.durationMs, 2100);
  assert.equal(state.isError, false);
});

test('lines that are not JSON objects are shown raw', () => {
  const { state, feed } = createTurnReader();
  assert.equal(feed('Warning: something odd'), true);
  feed('[1,2]');
  feed('42');
  assert.deepEqual(state.items.map((i) => [i.kind, i.text]),
    [['raw', 'Warning: something odd'], ['raw', '[1,2]'], ['raw', '42']]);
});

test('an error result that repeats the last text is shown once, as an error', () => {
  const { state, feed } = createTurnReader();
  feed(line({ type: 'system', subtype: 'init', session_id: 'S2' }));
  feed(line({ type: 'assistant', message: { content: [{ type: 'text', text: 'Not logged in · Please run /login' }] } }));
  feed(line({ type: 'result', is_error: true, result: 'Not logged in · Please run /login', session_id: 'S2' }));
  assert.deepEqual(state.items, [{ kind: 'error', text: 'Not logged in · Please run /login' }]);
  assert.equal(state.isError, true);
});

test('a result without earlier text supplies the answer; unknown types are quiet', () => {
  const { state, feed } = createTurnReader();
  assert.equal(feed(line({ type: 'rate_limit_event', info: {} })), false);
  feed(line({ type: 'result', is_error: false, result: 'Short answer.', session_id: 'S3' }));
  assert.deepEqual(state.items, [{ kind: 'text', text: 'Short answer.' }]);
  assert.equal(state.sessionId, 'S3');
});

test('tool summaries name the interesting argument', () => {
  assert.equal(toolSummary('Bash', { command: 'grep -n help paper.txt' }), 'grep -n help paper.txt');
  assert.equal(toolSummary('Grep', { pattern: 'counter' }), 'counter');
  assert.equal(toolSummary('X', {}), '');
  assert.equal(toolSummary('X', { a: 1 }), '{"a":1}');
  assert.ok(toolSummary('Bash', { command: 'x'.repeat(200) }).length <= 80);
});
