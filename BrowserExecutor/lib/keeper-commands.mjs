/** The commands that look after the keeper: status and stop. */

import { setTimeout as sleep } from 'node:timers/promises';

import { findKeeper } from './keeper-launcher.mjs';
import { keeperPaths } from './paths.mjs';

/** The keeper gives Chromium 3 s to end, and 3 s more once it is killed. */
const STOP_TIMEOUT = 15_000;

const NOT_RUNNING = 'not running\n';

/**
 * @param {NodeJS.ProcessEnv} env
 * @returns {Promise<string>} for a person to read
 */
export async function status(env) {
  const keeper = await findKeeper(env);
  if (!keeper) return NOT_RUNNING;
  const { pid, browser, spaces } = await keeper.request('status');
  const lines = [
    `running, pid ${pid}, ${browser || 'browser starting'}`,
    `socket ${keeperPaths(env).socket}`,
    `${spaces.length} task space${spaces.length === 1 ? '' : 's'}`,
    ...spaces.map(
      ({ name, pages, completed, createdAt, url }) =>
        `  ${JSON.stringify(name)}  ${completed ? 'completed' : 'open'}  since ${createdAt}  ` +
        `pages ${pages}  ${url}`,
    ),
  ];
  return `${lines.join('\n')}\n`;
}

/**
 * Ends the keeper with its browser, and returns when they are gone.
 * @param {NodeJS.ProcessEnv} env
 * @returns {Promise<string>} for a person to read
 * @throws {Error} when it takes longer than 15 s
 */
export async function stop(env) {
  const keeper = await findKeeper(env);
  if (!keeper) return NOT_RUNNING;
  const { pid } = await keeper.request('status');
  await keeper.request('stop');
  const done = new AbortController();
  const late = sleep(STOP_TIMEOUT, true, { signal: done.signal }).catch(() => false);
  if (await Promise.race([keeper.closed, late])) {
    throw new Error(`the keeper has not ended within ${STOP_TIMEOUT / 1000} s: kill ${pid}`);
  }
  done.abort();
  return 'stopped\n';
}
