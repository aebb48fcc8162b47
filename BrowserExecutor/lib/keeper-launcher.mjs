/** Finds the running keeper, or starts one. */

import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

import { findChromium } from './chromium.mjs';
import { spawnDetached } from './detached-process.mjs';
import { keeperEnvironment } from './environment.mjs';
import { KeeperConnection } from './keeper-connection.mjs';
import { idleExitMilliseconds } from './keeper-settings.mjs';
import { ensurePrivateDirectory, hasPrivateDirectory, keeperPaths } from './paths.mjs';

const START_TIMEOUT = 20_000;
const POLL_INTERVAL = 20;
const KEEPER = fileURLToPath(new URL('./keeper-main.mjs', import.meta.url));

/** What flock(1) exits with when another keeper has the lock; any number node does not use. */
const LOCK_TAKEN = 75;

/**
 * Connects to the keeper of this environment, if one runs.
 * @param {NodeJS.ProcessEnv} env
 * @returns {Promise<KeeperConnection | null>} null when none runs
 */
export async function findKeeper(env) {
  const { directory, socket } = keeperPaths(env);
  return hasPrivateDirectory(directory) ? KeeperConnection.open(socket) : null;
}

/**
 * Connects to the keeper of this environment and starts it when none runs. Any number of
 * processes may do so at once: the lock lets one keeper through.
 * @param {NodeJS.ProcessEnv} env
 * @returns {Promise<KeeperConnection>}
 * @throws {Error} when there is no Chromium, or the keeper does not come up within 20 s
 */
export async function startKeeper(env) {
  const running = await findKeeper(env);
  if (running) return running;

  findChromium(env); // tell its absence here rather than from the background
  idleExitMilliseconds(env);
  const paths = keeperPaths(env);
  ensurePrivateDirectory(paths.directory);
  const deadline = Date.now() + START_TIMEOUT;
  let launch = null;
  while (Date.now() < deadline) {
    const connection = await KeeperConnection.open(paths.socket);
    if (connection) return connection;
    if (launch?.failure) throw new Error(launch.failure);
    if (!launch || launch.ended) launch = launchKeeper(paths, env);
    await sleep(POLL_INTERVAL);
  }
  throw new Error(`the browser keeper did not start within ${START_TIMEOUT / 1000} s`);
}

/**
 * Spawns a keeper in a session of its own that shares no descriptor with us.
 * @returns {{ended: boolean, failure: string | null}} follows what becomes of it; one that found
 *   another keeper's lock has ended without failure
 */
function launchKeeper(paths, env) {
  const launch = { ended: false, failure: null };
  const flock = ['--nonblock', '--no-fork', '--conflict-exit-code', `${LOCK_TAKEN}`, paths.lock];
  const command = [...flock, process.execPath, KEEPER];
  const keeper = spawnDetached('flock', command, keeperEnvironment(env));
  keeper.once('error', (error) => {
    launch.failure = `cannot run flock, of the package util-linux: ${error.message}`;
  });
  keeper.once('exit', (code, signal) => {
    launch.ended = true;
    if (code && code !== LOCK_TAKEN) launch.failure = `the browser keeper exited with ${code}`;
    if (signal) launch.failure = `the browser keeper was ended by ${signal}`;
  });
  return launch;
}
