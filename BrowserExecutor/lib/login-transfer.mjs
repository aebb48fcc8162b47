/** Puts a login into a browser context, and reads its cookies from one. */

import { setTimeout as sleep } from 'node:timers/promises';

import { PipeSession } from './pipe-session.mjs';

const COMMAND_TIMEOUT = 10_000;
const CLOSE_INTERVAL = 10;
const EMPTY_PAGE = Buffer.from('<!doctype html>').toString('base64');

/** What a cookie is set with, of what is told about it. */
const COOKIE_FIELDS = [
  'name',
  'value',
  'domain',
  'path',
  'httpOnly',
  'secure',
  'sameSite',
  'priority',
  'sourceScheme',
  'sourcePort',
  'partitionKey',
];

/**
 * @param {import('./devtools-pipe.mjs').DevToolsPipe} pipe
 * @param {string} [contextId] the browser's own context unless given
 * @returns {Promise<object[]>} its cookies, as `giveLogin` takes them
 */
export async function readCookies(pipe, contextId) {
  const params = contextId ? { browserContextId: contextId } : {};
  const { cookies } = await pipe.send('Storage.getCookies', params, { timeout: COMMAND_TIMEOUT });
  return cookies.map((cookie) => {
    const fields = COOKIE_FIELDS.filter((field) => cookie[field] !== undefined);
    const taken = Object.fromEntries(fields.map((field) => [field, cookie[field]]));
    return cookie.session ? taken : { ...taken, expires: cookie.expires };
  });
}

/**
 * @param {import('./devtools-pipe.mjs').DevToolsPipe} pipe
 * @param {import('./logins.mjs').Login} login
 * @param {string} [contextId] the browser's own context unless given
 */
export async function giveLogin(pipe, { cookies, storage }, contextId) {
  const context = contextId ? { browserContextId: contextId } : {};
  const limit = { timeout: COMMAND_TIMEOUT };
  if (cookies.length > 0) await pipe.send('Storage.setCookies', { cookies, ...context }, limit);
  if (storage.length > 0) await giveStorage(pipe, storage, context);
}

// Storage belongs to an origin, so a page of each is needed: an empty one, without the network.
async function giveStorage(pipe, storage, context) {
  const page = { url: 'about:blank', background: true, ...context };
  const { targetId } = await pipe.send('Target.createTarget', page);
  const session = await PipeSession.attach(pipe, targetId);
  try {
    session.on('Fetch.requestPaused', ({ requestId }) => {
      const headers = [{ name: 'Content-Type', value: 'text/html' }];
      const response = { requestId, responseCode: 200, responseHeaders: headers, body: EMPTY_PAGE };
      session.send('Fetch.fulfillRequest', response).catch(() => {});
    });
    await session.send('Page.enable');
    await session.send('Fetch.enable', { patterns: [{ urlPattern: '*' }] });
    for (const { origin, items } of storage) await giveItems(session, origin, items);
  } finally {
    await closePage(pipe, targetId);
  }
}

// Returns once it is gone: until then it counts as a page of its context, which scripts may get.
async function closePage(pipe, targetId) {
  const limit = { timeout: COMMAND_TIMEOUT };
  await pipe.send('Target.closeTarget', { targetId }, limit).catch(() => {});
  for (const deadline = Date.now() + COMMAND_TIMEOUT; Date.now() < deadline;) {
    const { targetInfos } = await pipe.send('Target.getTargets', {}, limit);
    if (!targetInfos.some((target) => target.targetId === targetId)) return;
    await sleep(CLOSE_INTERVAL);
  }
}

async function giveItems(session, origin, items) {
  const loaded = session.next('Page.loadEventFired', COMMAND_TIMEOUT);
  loaded.catch(() => {}); // the navigation's error comes first
  const { errorText } = await session.send('Page.navigate', { url: `${origin}/` });
  if (errorText) throw new Error(`${origin}: ${errorText}`);
  await loaded;
  const set = `for (const [key, value] of ${JSON.stringify(items)}) localStorage.setItem(key, value)`;
  await session.send('Runtime.evaluate', { expression: set });
}
