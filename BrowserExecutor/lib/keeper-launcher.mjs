/** Finds the running keeper, starts one, and replaces one that hangs. */

import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

import { findChromium } from './chromium.mjs';
import { spawnDetached } from './detached-process.mjs';
import { keeperEnvironment } from './environment.mjs';
import { KeeperConnection, SilentKeeperError } from './keeper-connection.mjs';
import { idleExitMilliseconds } from './keeper-settings.mjs';
import { ensureOwnDirectory, hasOwnDirectory, keeperPaths } from './paths.mjs';
import { killIdentified } from './process-identity.mjs';
import { VERSION } from './version.mjs';

const START_TIMEOUT = 20_000;
const POLL_INTERVAL = 20;
const LAST_WORDS_BYTES = 2_000;
const KEEPER = fileURLToPath(new URL('./keeper-main.mjs', import.meta.url));

/** What flock(1) exits with when another keeper has the lock; any number node does not use. */
const LOCK_TAKEN = 75;

/**
 * Connects to the keeper of this environment, of whatever version, if one runs. One that hangs is
 * ended with its browser, and counts as none.
 * @param {NodeJS.ProcessEnv} env
 * @param {(text: string) => void} tell gets what the user has to know
 * @returns {Promise<KeeperConnection | null>} null when none runs
 */
export async function findKeeper(env, tell) {
  const paths = keeperPaths(env);
  if (!hasOwnDirectory(paths.directory)) return null;
  try {
    return await KeeperConnection.open(paths.socket);
  } catch (error) {
    if (!(error instanceof SilentKeeperError)) throw error;
    tell(`the browser keeper did not answer: ${endHangingKeeper(paths)}`);
    return null;
  }
}

/**
 * Connects to the keeper of this environment and starts it when none runs. Any number of
 * processes may do so at once: the lock lets one keeper through.
 * @param {NodeJS.ProcessEnv} env
 * @param {(text: string) => void} tell gets what the user has to know
 * @returns {Promise<KeeperConnection>}
 * @throws {Error} when there is no Chromium, the running keeper speaks another protocol, or none
 *   comes up within 20 s
 */
export async function startKeeper(env, tell) {
  const connection = (await findKeeper(env, tell)) ?? (await launch(env));
  requireOurProtocol(connection);
  return connection;
}

/**
 * @param {KeeperConnection} connection closed unless its keeper speaks our protocol
 * @throws {Error} then
 */
export function requireOurProtocol(connection) {
  if (connection.speaksOurProtocol) return;
  connection.close();
  throw new Error(describeOtherVersion(connection));
}

/**
 * Tells when the keeper is of another version, as one is that an upgrade found running: it goes on
 * with the program that it was started with.
 * @param {KeeperConnection} connection
 * @param {(text: string) => void} tell
 */
export function tellOtherVersion(connection, tell) {
  if (connection.keeper.version !== VERSION) tell(describeOtherVersion(connection));
}

function describeOtherVersion({ keeper: { pid, version } }) {
  return (
    `the browser keeper (pid ${pid}) runs ${version ? `version ${version}` : 'an older version'}, ` +
    `this is ${VERSION}: verdo-browser stop ends it, with its task spaces, and the next script ` +
    'starts the new one'
  );
}

async function launch(env) {
  findChromium(env); // tell its absence here rather than from the background
  idleExitMilliseconds(env);
  const paths = keeperPaths(env);
  ensureOwnDirectory(paths.directory);
  const deadline = Date.now() + START_TIMEOUT;
  let attempt = null;
  try {
    while (Date.now() < deadline) {
      const connection = await KeeperConnection.open(paths.socket);
      if (connection) return connection;
      if (attempt?.failure) throw new Error(attempt.failure);
      if (!attempt || attempt.ended) attempt = launchKeeper(paths, env);
      await sleep(POLL_INTERVAL);
    }
  } finally {
    attempt?.forget();
  }
  throw new Error(`the browser keeper did not start within ${START_TIMEOUT / 1000} s`);
}

/**
 * Spawns a keeper in a session of its own that shares no descriptor with us but its standard
 * error, until it runs.
 * @returns {{ended: boolean, failure: string | null, forget: () => void}} follows what becomes of
 *   it; one that found another keeper's lock has ended without failure
 */
function launchKeeper(paths, env) {
  const flock = ['--nonblock', '--no-fork', '--conflict-exit-code', `${LOCK_TAKEN}`, paths.lock];
  const command = [...flock, process.execPath, KEEPER];
  const keeper = spawnDetached('flock', command, keeperEnvironment(env));
  const attempt = { ended: false, failure: null, forget: () => keeper.stderr.destroy() };
  let lastWords = '';
  keeper.stderr.on('data', (text) => (lastWords = `${lastWords}${text}`.slice(-LAST_WORDS_BYTES)));
  keeper.stderr.unref();
  keeper.once('error', (error) => {
    attempt.failure = `cannot run flock, of the package util-linux: ${error.message}`;
  });
  keeper.once('close', (code, signal) => {
    attempt.ended = true;
    if (!signal && (code === 0 || code === LOCK_TAKEN)) return;
    const how = signal ? `was ended by ${signal}` : `exited with ${code}`;
    attempt.failure = `the browser keeper ${how}: ${lastWords.trim() || 'it said nothing'}`;
  });
  return attempt;
}

/**
 * Kills the keeper that holds the lock, and its browser, for which a hanging one cannot care.
 * @param {import('./paths.mjs').KeeperPaths} paths
 * @returns {string} what was done, for a person
 */
function endHangingKeeper(paths) {
  let record;
  try {
    record = JSON.parse(fs.readFileSync(paths.lock, 'utf8'));
  } catch {
    return `which process it is cannot be told, look for one that holds ${paths.lock}`;
  }
  killIdentified(record);
  killIdentified(record.browser, { group: true });
  return `it (pid ${record.pid}) was ended, with its browser and its task spaces`;
}
