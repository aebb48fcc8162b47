/** The functions that scripts find as globals. */

import util from 'node:util';

import { atCallSite } from './call-site.mjs';
import { findKeeper, startKeeper } from './keeper-launcher.mjs';
import { PageSession } from './page-session.mjs';
import { Page } from './page.mjs';
import { checkName } from './protocol.mjs';

/** Creating a task space may wait for Chromium to start. */
const OPEN_TIMEOUT = 60_000;

/**
 * @param {object} options
 * @param {NodeJS.ProcessEnv} options.env decides which keeper is used
 * @param {(text: string) => void} options.write writes to standard output
 * @returns {Record<string, Function>} the globals by name
 */
export function createScriptApi({ env, write }) {
  let connection = null;

  /** The keeper's connection of this script, made anew after a loss; `start` starts a keeper. */
  async function keeper({ start }) {
    if (!connection?.usable) connection = await (start ? startKeeper : findKeeper)(env);
    return connection;
  }

  /**
   * Prints a text as it is, as one line or as the lines that it has; other values as JSON where
   * JSON can say them, else as node shows them.
   * @param {unknown} value
   */
  function cliLog(value) {
    write(`${printable(value)}\n`);
  }

  /**
   * Lists the task spaces. Starts no browser: without one there are none.
   * @returns {Promise<import('./task-spaces.mjs').TaskSpaceInfo[]>}
   */
  function listTaskSpaces() {
    return atCallSite(listTaskSpaces, async () => {
      const running = await keeper({ start: false });
      return running ? (await running.request('list')).spaces : [];
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
  function completeTaskSpace(name, { keep = false } = {}) {
    return atCallSite(completeTaskSpace, async () => {
      checkName(name);
      const running = await keeper({ start: false });
      if (!running) return { name, found: false, closed: false };
      return { name, ...(await running.request('complete', { name, keep })) };
    });
  }

  /**
   * Opens a task space: the one of this name with the page it has, or a new one with an empty
   * page. Starts the browser when none runs.
   * @param {string} name
   * @returns {Promise<Page>}
   */
  function openTaskSpace(name) {
    return atCallSite(openTaskSpace, async () => {
      checkName(name);
      const running = await keeper({ start: true });
      const { session } = await running.request('open', { name }, { timeout: OPEN_TIMEOUT });
      return new Page(new PageSession(running, session));
    });
  }

  return { cliLog, listTaskSpaces, completeTaskSpace, openTaskSpace };
}

function printable(value) {
  if (typeof value === 'string') return value;
  if (!isJsonValue(value)) return util.inspect(value);
  try {
    return JSON.stringify(value);
  } catch {
    return util.inspect(value); // circular, or a BigInt inside
  }
}

function isJsonValue(value) {
  if (value === null || ['number', 'boolean'].includes(typeof value)) return true;
  if (typeof value !== 'object') return false;
  if (Array.isArray(value) || typeof value.toJSON === 'function') return true;
  const prototype = Object.getPrototypeOf(value);
  return prototype === Object.prototype || prototype === null;
}
