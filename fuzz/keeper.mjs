/**
 * Tries what the browser keeper reads: the frames of its connections, the outside of Chromium's
 * messages, and the commands of scripts, with random inputs against plain models. An input that finds
 * something is kept in fuzz/found/keeper.
 *
 * Usage: keeper.mjs SECONDS | --replay
 */

import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { mkdirSync, readFileSync, readdirSync, writeFileSync } from 'node:fs';
import { setImmediate as turn } from 'node:timers/promises';

import { permittedParams } from '../BrowserExecutor/lib/command-rules.mjs';
import { readEnvelope, withId } from '../BrowserExecutor/lib/envelope.mjs';
import { Frame, FrameSplitter } from '../BrowserExecutor/lib/frames.mjs';
import { readRequest } from '../BrowserExecutor/lib/protocol.mjs';
import { SpaceBrowser } from '../BrowserExecutor/lib/space-browser.mjs';

const CONTEXT_ID = 'C0FFEE';
const TARGET_ID = 'AB12';

// Random inputs. A case is plain JSON; bytes in it are Latin-1 texts.

const below = (count) => Math.floor(Math.random() * count);
const oneOf = (list) => list[below(list.length)];
const listOf = (max, make) => Array.from({ length: below(max + 1) }, make);

const TEXTS = [
  '',
  'a',
  '"',
  '\\',
  '}',
  '{"id":1,',
  '"sessionId":"X"}',
  'é😀',
  '\u2028',
  '\n',
  '\0',
];
const WORDS = ['__proto__', 'constructor', 'toString', 'hasOwnProperty', 'id', 'sessionId'];
const METHODS = [
  ...['Browser.close', 'Browser.crash', 'Browser.getVersion', 'Browser.setDownloadBehavior'],
  ...['Target.createBrowserContext', 'Target.disposeBrowserContext', 'Target.createTarget'],
  ...['Target.exposeDevToolsProtocol', 'Target.attachToTarget', 'Target.closeTarget'],
  ...['Target.setAutoAttach', 'Target.detachFromTarget', 'Target.getTargets', 'Target.sendMessage'],
  ...['Target.attachToBrowserTarget', 'Target.setDiscoverTargets', 'Target.getBrowserContexts'],
  ...['Storage.getCookies', 'Storage.clearCookies', 'Storage.clearDataForOrigin'],
  ...['SystemInfo.getInfo', 'Page.navigate', 'Runtime.evaluate', 'Network.getAllCookies'],
  ...['Tethering.bind', 'Extensions.loadUnpacked', 'IO.read', 'Memory.getDOMCounters'],
];

function anyValue(depth = 0) {
  if (depth < 3 && below(3) === 0) {
    if (below(2) === 0) return listOf(3, () => anyValue(depth + 1));
    return Object.fromEntries(listOf(3, () => [oneOf([...TEXTS, ...WORDS]), anyValue(depth + 1)]));
  }
  return oneOf([null, true, 0, -1, 1e300, 2 ** 53, ...TEXTS, ...WORDS]);
}

function mutated(text) {
  const at = below(text.length + 1);
  const rest = text.slice(at + below(3));
  return text.slice(0, at) + oneOf([...TEXTS, ...WORDS, String.fromCharCode(below(256))]) + rest;
}

const maybe = (value) => (below(3) === 0 ? undefined : value);

const GENERATORS = {
  frames: () => ({
    limit: below(40),
    chunks: listOf(12, () => oneOf(['', 'a', '|', 'ab|', '||', 'x'.repeat(below(90)), '|\u00ff|'])),
  }),
  envelope: () => {
    const sessionId = maybe(oneOf(['5F', 'A-b_1', 'F'.repeat(32)]));
    const message =
      below(2) === 0
        ? { id: below(1e6), [oneOf(['result', 'error'])]: anyValue(), sessionId }
        : { method: oneOf(METHODS), params: anyValue(), sessionId };
    const text = Buffer.from(JSON.stringify(message)).toString('latin1');
    return { text, cut: below(text.length + 1), again: below(text.length + 1) };
  },
  commands: () => ({
    lines: listOf(6, () => {
      const method = below(4) === 0 ? oneOf(WORDS) : oneOf(METHODS);
      const params = below(4) === 0 ? anyValue() : { ...(below(2) ? anyValue() : {}) };
      if (params && typeof params === 'object' && !Array.isArray(params)) {
        if (below(2)) params.targetId = oneOf([TARGET_ID, 'FF', null, ['AB12'], 7]);
        if (below(3) === 0) params.browserContextId = oneOf([CONTEXT_ID, 'OTHER', null, '']);
        if (below(3) === 0) params.sessionId = oneOf(['S2', 'S9']);
        if (below(3) === 0) params.autoAttach = oneOf([true, false, 1]);
      }
      const command = {
        id: below(9),
        method,
        params,
        sessionId: maybe(oneOf(['S2', 'S2', 'S9', ''])),
      };
      const line = JSON.stringify(command);
      return below(5) === 0 ? mutated(line) : line;
    }),
  }),
};

// What is tried with them. Each throws for what it finds.

function tryFrames({ limit, chunks }) {
  const bytes = chunks.map((chunk) => Buffer.from(chunk, 'latin1'));
  const seen = [];
  const splitter = new FrameSplitter({
    delimiter: 0x7c,
    limit,
    onFrame: (frame) => seen.push({ frame }),
    onOversize: (head) => seen.push({ head: head.toString('latin1') }),
  });
  for (const chunk of bytes) splitter.push(chunk);

  const messages = Buffer.concat(bytes).toString('latin1').split('|');
  const last = messages.pop();
  const expected = [...messages, ...(last.length > limit ? [last] : [])];
  assert.equal(seen.length, expected.length);
  for (const [i, { frame, head }] of seen.entries()) {
    const text = expected[i];
    assert.equal(frame === undefined, text.length > limit, 'only what is too long is skipped');
    if (!frame) {
      assert.ok(text.startsWith(head) && head.length > Math.min(limit, 1023));
      continue;
    }
    assert.equal(frame.bytes, text.length);
    assert.equal(frame.text(), Buffer.from(text, 'latin1').toString('utf8'));
    for (const count of [0, 1, 5, text.length, 99]) {
      assert.equal(frame.head(count), text.slice(0, count));
      assert.equal(frame.tail(count), count === 0 ? '' : text.slice(-count));
      assert.equal(Buffer.concat(frame.after(count)).toString('latin1'), text.slice(count));
    }
  }
}

function tryEnvelope({ text, cut, again }) {
  const whole = Buffer.from(text, 'latin1');
  const places = [0, cut, again, whole.length].sort((a, b) => a - b);
  const pieces = [0, 1, 2].map((i) => whole.subarray(places[i], places[i + 1]));
  const frame = new Frame(
    pieces.filter((piece) => piece.length > 0),
    whole.length,
  );
  const message = JSON.parse(whole.toString('utf8'));
  const { id, method, sessionId } = readEnvelope(frame);
  const { id: itsId, method: itsMethod, sessionId: itsSession } = message;
  assert.deepEqual([id, method, sessionId], [itsId, itsMethod, itsSession]);
  if (id === undefined) return;
  const renamed = JSON.parse(Buffer.concat(withId(frame, 77)).toString('utf8'));
  assert.deepEqual(renamed, { ...message, id: 77 });
}

/** The browser of a task space in which a client is attached to its page by the session S2, for the commands that reach it. */
function browserOf(reached) {
  const pipe = {
    send: async (method, params = {}) => {
      reached.push({ method, params });
      return { sessionId: 'S2' };
    },
    forward: (command) => reached.push(command),
    waitForDrain: () => false,
    listen: () => {},
    dropSession: () => {},
  };
  const told = [];
  const channel = {
    closed: false,
    relay: (some) => told.push(JSON.parse(Buffer.concat(some).toString('utf8'))),
    pause: () => {},
    resume: () => {},
  };
  const info = { targetId: TARGET_ID, type: 'page', title: '', url: 'about:blank' };
  const space = { contextId: CONTEXT_ID, targets: new Map([[TARGET_ID, info]]) };
  return { view: new SpaceBrowser({ pipe, channel, space }), told };
}

const COMMAND = /^[A-Z]\w*\.\w+$/;
/** Commands that act on the target that they name. */
const NAMES_TARGET =
  /^(Target\.(attachToTarget|closeTarget|activateTarget|getTargetInfo)|Browser\.getWindowForTarget)$/;
const NEVER =
  /^(Browser\.(close|crash)|Target\.(createBrowser|disposeBrowser|exposeDev|getTargets|sendMessage)|(SystemInfo|Tethering|Extensions)\.)/;

async function tryCommands({ lines }) {
  const reached = [];
  const { view, told } = browserOf(reached);
  view.receive({ id: 0, method: 'Target.attachToTarget', params: { targetId: TARGET_ID } });
  await turn();
  for (const line of lines) {
    const command = readRequest(line);
    if (!command) continue;
    checkRule(command);
    const before = { reached: reached.length, told: told.length };
    view.receive(command);
    await turn(); // answers come later
    const sent = reached.slice(before.reached);
    const replies = told.slice(before.told).filter(({ id }) => id === command.id);
    const forwarded = sent.filter(({ id }) => id !== undefined);
    assert.equal(replies.length + forwarded.length, 1, 'a command has one answer');
    if (!COMMAND.test(command.method) && command.sessionId === undefined) {
      assert.ok(replies[0]?.error, 'what is no command is refused');
    }
    for (const { method, params, sessionId } of sent) checkReached(method, params, sessionId);
  }
}

/** What the rules let pass holds whoever asks them. */
function checkRule(command) {
  let params;
  try {
    params = permittedParams(command, {
      contextId: CONTEXT_ID,
      hasTarget: (targetId) => targetId === TARGET_ID,
    });
  } catch (error) {
    assert.ok(error.message.startsWith(`${command.method}`), 'a refusal names the command');
    assert.doesNotMatch(error.message, /native code|\[object/, 'a refusal is for people');
    return;
  }
  checkReached(command.method, params, command.sessionId);
}

/** Whatever a script has sent, this is all that may come of it. */
function checkReached(method, params, sessionId) {
  assert.doesNotMatch(method, NEVER);
  const { targetId, browserContextId } = params;
  assert.ok(browserContextId === undefined || browserContextId === CONTEXT_ID, 'its own context');
  if (NAMES_TARGET.test(method)) {
    const isItself = sessionId !== undefined && targetId === undefined;
    assert.ok(targetId === TARGET_ID || isItself, 'its own pages');
  }
  if (sessionId === undefined) {
    assert.match(method, /^(Browser|Target|Storage)\./, 'the browser takes nothing else');
    if (/^Storage\./.test(method)) assert.equal(browserContextId, CONTEXT_ID);
  }
}

const TRIES = { frames: tryFrames, envelope: tryEnvelope, commands: tryCommands };

// The program.

const folder = (name) => new URL(`./${name}/keeper/`, import.meta.url);

async function replay() {
  let count = 0;
  for (const name of ['seeds', 'found']) {
    let files = [];
    try {
      files = readdirSync(folder(name));
    } catch {
      // nothing was found yet
    }
    for (const file of files) {
      const { kind, input } = JSON.parse(readFileSync(new URL(file, folder(name)), 'utf8'));
      console.log(`${name}/keeper/${file}`);
      await TRIES[kind](input);
      ++count;
    }
  }
  assert.ok(count > 0, 'there are inputs');
}

async function fuzz(seconds) {
  const end = Date.now() + seconds * 1000;
  let runs = 0;
  const kinds = Object.keys(TRIES);
  while (Date.now() < end) {
    const kind = kinds[runs++ % kinds.length];
    const input = GENERATORS[kind]();
    try {
      await TRIES[kind](input);
    } catch (error) {
      const text = `${JSON.stringify({ kind, input })}\n`;
      const name = createHash('sha1').update(text).digest('hex').slice(0, 12);
      mkdirSync(folder('found'), { recursive: true });
      writeFileSync(new URL(`${kind}-${name}`, folder('found')), text);
      console.log(`${error.stack}\nwritten to fuzz/found/keeper/${kind}-${name}: ${text}`);
      process.exitCode = 1;
      break;
    }
  }
  console.log(`${runs} executions`);
}

const [argument] = process.argv.slice(2);
if (argument === '--replay') await replay();
else if (Number(argument) > 0) await fuzz(Number(argument));
else throw new Error('usage: keeper.mjs SECONDS | --replay');
