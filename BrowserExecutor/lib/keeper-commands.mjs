/** The commands that look after the browser: each gives the text for a person to read. */

import { setTimeout as sleep } from 'node:timers/promises';

import { findChromium } from './chromium.mjs';
import { findKeeper, tellOtherVersion } from './keeper-launcher.mjs';
import { LoginWindow } from './login-window.mjs';
import { Logins } from './logins.mjs';
import { checkName } from './protocol.mjs';
import { keeperPaths } from './paths.mjs';

/** The keeper gives Chromium 3 s to end, and 3 s more once it is killed. */
const STOP_TIMEOUT = 15_000;

const NOT_RUNNING = 'not running\n';

/**
 * @typedef {object} Context
 * @property {NodeJS.ProcessEnv} env
 * @property {(text: string) => void} tell gets what the user has to know beside the answer
 */

/** Whether the keeper runs, and what it has. @param {Context} context */
export async function status({ env, tell }) {
  const keeper = await findKeeper(env, tell);
  if (!keeper) return NOT_RUNNING;
  tellOtherVersion(keeper, tell);
  const { pid, browser, spaces } = await keeper.request('status');
  const { socket, log } = keeperPaths(env);
  const count = `${spaces.length} task space${spaces.length === 1 ? '' : 's'}`;
  const lines = [
    `running, pid ${pid}, ${browser || 'browser starting'}`,
    `version ${keeper.keeper.version ?? 'older than it can tell'}`,
    `socket ${socket}`,
    `log ${log}`,
    count,
  ];
  return `${lines.join('\n')}\n${tableOf(spaces)}`;
}

/** The task spaces, a line each. @param {Context} context */
export async function list({ env, tell }) {
  const keeper = await findKeeper(env, tell);
  if (!keeper) return '';
  tellOtherVersion(keeper, tell);
  return tableOf((await keeper.request('list')).spaces);
}

/**
 * Closes one task space.
 * @param {Context} context
 * @param {string} name
 * @throws {Error} when there is none of the name
 */
export async function close({ env, tell }, name) {
  checkName(name);
  const keeper = await findKeeper(env, tell);
  const reply = await keeper?.request('complete', { name, keep: false });
  if (!reply?.found) throw new Error(`there is no task space ${JSON.stringify(name)}`);
  return 'closed\n';
}

/**
 * Ends the keeper with its browser, and returns when they are gone.
 * @param {Context} context
 * @throws {Error} when it takes longer than 15 s
 */
export async function stop({ env, tell }) {
  let hung = false;
  const keeper = await findKeeper(env, (text) => {
    hung = true;
    tell(text);
  });
  if (!keeper) return hung ? 'stopped\n' : NOT_RUNNING;
  await keeper.request('stop');
  const done = new AbortController();
  const late = sleep(STOP_TIMEOUT, true, { signal: done.signal }).catch(() => false);
  if (await Promise.race([keeper.closed, late])) {
    const { pid } = keeper.keeper;
    throw new Error(`the keeper has not ended within ${STOP_TIMEOUT / 1000} s: kill ${pid}`);
  }
  done.abort();
  return 'stopped\n';
}

/**
 * Lets a person log in, in a window, and keeps what they logged in to.
 * @param {Context} context
 * @param {string} [name] of the task space that it is for; for all new ones unless given
 * @throws {Error} when there is no display or no Chromium with a window
 */
export async function login({ env, tell }, name) {
  if (name !== undefined) checkName(name);
  if (process.platform !== 'darwin' && !env.DISPLAY && !env.WAYLAND_DISPLAY) {
    throw new Error('login opens a window, and there is no display: run it in a desktop session');
  }
  findChromium(env, { visible: true });
  const logins = new Logins(env);
  const closing = new AbortController();
  for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.once(signal, () => closing.abort());
  const before = logins.read(name) ?? logins.read() ?? { cookies: [], storage: [] };
  const profile = logins.createWindowProfile();
  const kept = await LoginWindow.show({
    env,
    profile,
    login: before,
    signal: closing.signal,
    onReady: () => tell('log in in the window; when it is closed, what you logged in to is kept'),
  });
  logins.write(name, kept);
  if (name !== undefined) await renew({ env, tell }, name);
  const sites = new Set(kept.cookies.map(({ domain }) => domain.replace(/^\./, '')));
  for (const { origin } of kept.storage) sites.add(new URL(origin).hostname);
  return `kept the logins of ${sites.size} site${sites.size === 1 ? '' : 's'}\n`;
}

/**
 * Forgets what was logged in to.
 * @param {Context} context
 * @param {string} [name] of a task space, which is closed; the base login unless given
 */
export async function forget({ env, tell }, name) {
  if (name !== undefined) {
    checkName(name);
    const keeper = await findKeeper(env, tell);
    await keeper?.request('complete', { name, keep: false });
  }
  const had = new Logins(env).forget(name);
  return had ? 'forgotten\n' : 'nothing was kept\n';
}

async function renew({ env, tell }, name) {
  const keeper = await findKeeper(env, tell);
  if (!keeper?.speaksOurProtocol) return;
  await keeper.request('renew', { name });
}

function tableOf(spaces) {
  const lines = spaces.map(
    ({ name, pages, completed, createdAt, url }) =>
      `  ${JSON.stringify(name)}  ${completed ? 'completed' : 'open'}  since ${createdAt}  ` +
      `pages ${pages}  ${url}\n`,
  );
  return lines.join('');
}
