/** The functions that scripts find as globals. */

import { formatValues } from './cli-log.mjs';
import { KeeperLostError } from './keeper-connection.mjs';
import {
  findKeeper,
  requireOurProtocol,
  startKeeper,
  tellOtherVersion,
} from './keeper-launcher.mjs';
import { checkName } from './protocol.mjs';
import { checkNames, checkOptions } from './space-options.mjs';

/** Creating a task space may wait for Chromium to start. */
const OPEN_TIMEOUT = 30_000;

/**
 * @param {object} options
 * @param {NodeJS.ProcessEnv} options.env decides which keeper is used
 * @param {(text: string) => void} options.write writes to standard output
 * @param {(text: string) => void} options.tell writes a line of our own to standard error
 * @returns {{globals: Record<string, Function>, close: () => void}} the globals by name; `close`
 *   when the script's body has ended: open task spaces do not keep the process alive then
 */
export function createScriptApi({ env, write, tell }) {
  const spaces = new Map(); // of each name: its connection, page and options, to come
  const connections = new Set();
  let ended = false;
  let hasToldVersion = false;

  /**
   * Prints values as one line, joined by blanks, or as the lines that they have: texts as they
   * are, others as console.log shows them.
   * @param {...unknown} values
   */
  function cliLog(...values) {
    write(`${formatValues(...values)}\n`);
  }

  /**
   * Lists the task spaces. Starts no browser: without one there are none.
   * @returns {Promise<import('./task-spaces.mjs').TaskSpaceInfo[]>}
   */
  function listTaskSpaces() {
    return atCallSite(listTaskSpaces, async () => {
      const reply = await ask('list');
      return reply ? reply.spaces : [];
    });
  }

  /**
   * Ends the work on a task space. Starts no browser.
   * @param {string} name
   * @param {{keep?: boolean}} [options] false, the default, closes the space and its pages; true
   *   leaves it open and marks it complete
   * @returns {Promise<{name: string, found: boolean, closed: boolean}>} an unknown name is no
   *   error: found is false then
   */
  function completeTaskSpace(name, options = {}) {
    return atCallSite(completeTaskSpace, async () => {
      checkName(name);
      checkNames('completeTaskSpace', options, ['keep']);
      const { keep = false } = options;
      const reply = await ask('complete', { name, keep });
      return { name, ...(reply ?? { found: false, closed: false }) };
    });
  }

  /**
   * Opens a task space: the one of this name with the page it has, or a new one with an empty
   * page. Starts the browser when none runs.
   * @param {string} name
   * @param {import('./space-options.mjs').SpaceOptions} [options]
   * @returns {Promise<import('puppeteer-core').Page>}
   */
  function openTaskSpace(name, options) {
    return atCallSite(openTaskSpace, async () => {
      checkName(name);
      const checked = checkOptions(options);
      const opening = reuseOrOpen(spaces.get(name), name, checked);
      spaces.set(name, opening); // at once: a second call may come while this one waits
      const { page, options: first } = await opening;
      if (first === checked || Object.keys(checked).length === 0) return page;
      throw new Error(`task space ${JSON.stringify(name)} is open: its options came first`);
    });
  }

  async function reuseOrOpen(earlier, name, options) {
    const before = await earlier?.catch(() => null);
    if (before?.connection.usable && !before.page.isClosed()) return before;
    before?.connection.close();
    return openAnew(name, options);
  }

  async function openAnew(name, options) {
    // What is loaded takes as long as the keeper does: both at once.
    const library = import('./space-pages.mjs');
    const { connection, reply } = await openSpace(name);
    for (const note of reply.notes) tell(note);
    connections.add(connection);
    if (!ended) connection.hold();
    const { SpacePages } = await library;
    try {
      const page = await SpacePages.open({ connection, page: reply.page, options, tell });
      return { connection, page, options };
    } catch (error) {
      const told = connection.usable ? error : connection.lostError();
      connection.close();
      throw told;
    }
  }

  // A keeper that runs may end just now, because it was idle or because its browser hangs.
  async function openSpace(name) {
    const running = await findKeeper(env, tell);
    if (running) {
      try {
        return await openThrough(running, name);
      } catch (error) {
        if (!(error instanceof KeeperLostError)) throw error;
        tellLoss(error);
      }
    }
    return openThrough(await startKeeper(env, tell), name);
  }

  async function openThrough(connection, name) {
    try {
      requireOurProtocol(connection);
      tellVersionOnce(connection);
      const reply = await connection.request('open', { name }, { timeout: OPEN_TIMEOUT });
      return { connection, reply };
    } catch (error) {
      connection.close();
      throw error;
    }
  }

  /** One request; null without a keeper. */
  async function ask(method, params) {
    const keeper = await findKeeper(env, tell);
    if (!keeper) return null;
    tellVersionOnce(keeper);
    try {
      return await keeper.request(method, params);
    } catch (error) {
      if (!(error instanceof KeeperLostError)) throw error;
      tellLoss(error);
      return null;
    } finally {
      keeper.close();
    }
  }

  function tellVersionOnce(connection) {
    if (hasToldVersion) return;
    tellOtherVersion(connection, (text) => {
      hasToldVersion = true;
      tell(text);
    });
  }

  function tellLoss({ message, lost }) {
    const names = lost.map((name) => JSON.stringify(name)).join(', ');
    if (lost.length > 0) tell(`${message}; lost with it: ${names}`);
  }

  function close() {
    ended = true;
    for (const connection of connections) connection.release();
  }

  return { globals: { cliLog, listTaskSpaces, completeTaskSpace, openTaskSpace }, close };
}

/**
 * Runs one API operation. An error that it rejects with gets the stack of the API call, since the
 * place where a reply happened to arrive means nothing to the script's author.
 */
async function atCallSite(method, operation) {
  const site = {};
  Error.captureStackTrace(site, method);
  try {
    return await operation();
  } catch (error) {
    const frames = site.stack.split('\n').filter((line) => /^\s+at /.test(line));
    error.stack = [`${error.name}: ${error.message}`, ...frames].join('\n');
    throw error;
  }
}
