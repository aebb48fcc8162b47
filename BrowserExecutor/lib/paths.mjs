/** Where the keeper's files are, and the checks that keep them private to one user. */

import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

/** sun_path holds 104 bytes on macOS and 108 on Linux, with the final NUL. */
const MAX_SOCKET_PATH_BYTES = 103;

/**
 * @typedef {object} KeeperPaths
 * @property {string} directory private directory (mode 0700) that holds everything below
 * @property {string} socket    Unix socket of the running keeper
 * @property {string} lock      file whose flock(2) lock the keeper holds as long as it lives; tells
 *   which processes it and its browser are
 * @property {string} log       what the keeper has to say
 */

/**
 * The paths for an environment; touches no file.
 * @param {NodeJS.ProcessEnv} env
 * @returns {KeeperPaths}
 * @throws {Error} when the socket path would be too long for the system
 */
export function keeperPaths(env) {
  const runtime = env.XDG_RUNTIME_DIR;
  const directory =
    runtime && path.isAbsolute(runtime)
      ? path.join(runtime, 'verdo-browser')
      : path.join(env.HOME || os.homedir(), '.cache', 'verdo', 'browser');
  const socket = path.join(directory, 'keeper.sock');
  const bytes = Buffer.byteLength(socket);
  if (bytes > MAX_SOCKET_PATH_BYTES) {
    throw new Error(
      `the socket path ${socket} has ${bytes} bytes, ${MAX_SOCKET_PATH_BYTES} are possible: ` +
        'set XDG_RUNTIME_DIR to a shorter directory',
    );
  }
  const lock = path.join(directory, 'keeper.lock');
  return { directory, socket, lock, log: path.join(directory, 'keeper.log') };
}

/**
 * Whether a directory of this user's alone is there. One that someone else could have put a socket
 * or a file into is refused: what goes through it is for this user alone.
 * @param {string} directory
 * @param {string} [variable] the environment variable that puts it elsewhere
 * @returns {boolean}
 * @throws {Error} when it is no directory of this user
 */
export function hasOwnDirectory(directory, variable = 'XDG_RUNTIME_DIR') {
  let stat;
  try {
    stat = fs.lstatSync(directory, { throwIfNoEntry: false });
  } catch (error) {
    throw unusable(directory, error.message, variable);
  }
  if (!stat) return false;
  if (!stat.isDirectory()) throw unusable(directory, 'it is not a directory', variable);
  if (stat.uid !== process.getuid()) {
    throw unusable(directory, `it belongs to user ${stat.uid}`, variable);
  }
  return true;
}

/**
 * Creates a directory of this user's alone, or takes an existing one, and sees to its mode 0700.
 * @param {string} directory
 * @param {string} [variable] the environment variable that puts it elsewhere
 * @throws {Error} when it cannot be created or belongs to someone else
 */
export function ensureOwnDirectory(directory, variable = 'XDG_RUNTIME_DIR') {
  try {
    makeDirectories(directory, 0o700);
    hasOwnDirectory(directory, variable);
    fs.chmodSync(directory, 0o700);
  } catch (error) {
    throw error.code ? unusable(directory, error.message, variable) : error;
  }
}

/**
 * Creates a directory with its parents. Node's own way gives wrong reasons where a file system is
 * read-only, and never ends under /proc.
 * @param {string} directory absolute
 * @param {number} [mode] of what is created
 * @throws {Error} the system's
 */
export function makeDirectories(directory, mode = 0o777) {
  if (fs.existsSync(directory)) return;
  makeDirectories(path.dirname(directory), mode);
  try {
    fs.mkdirSync(directory, { mode });
  } catch (error) {
    if (error.code !== 'EEXIST') throw error; // somebody else has just made it
  }
}

function unusable(directory, reason, variable) {
  return new Error(
    `cannot use the directory ${directory}: ${reason}; ` +
      `set ${variable} to a directory of your own`,
  );
}

/**
 * Makes room for the socket. Call it only with the keeper's lock held.
 * @param {string} socket
 * @throws {Error} when something else than a socket is there
 */
export function removeLeftoverSocket(socket) {
  const stat = fs.lstatSync(socket, { throwIfNoEntry: false });
  if (stat && !stat.isSocket()) throw new Error(`${socket} is in the way: remove it`);
  fs.rmSync(socket, { force: true });
}

const PROFILE_PREFIX = 'profile-';

/**
 * Creates a fresh browser profile directory, mode 0700. Each browser gets its own, so that one
 * that is still ending cannot disturb the next.
 * @param {string} directory the keeper's directory
 * @returns {string} absolute path
 */
export function createProfile(directory) {
  return fs.mkdtempSync(path.join(directory, PROFILE_PREFIX));
}

/**
 * Removes the profiles that killed keepers left behind. Call it only with the keeper's lock held.
 * @param {string} directory the keeper's directory
 */
export function removeLeftoverProfiles(directory) {
  for (const entry of fs.readdirSync(directory)) {
    if (entry.startsWith(PROFILE_PREFIX)) removeDirectory(path.join(directory, entry));
  }
}

/**
 * Removes a directory of the browser's: a profile, or downloads. One that is just ending may still
 * write into it; what cannot be removed of a profile now is removed by the next keeper.
 * @param {string} directory
 */
export function removeDirectory(directory) {
  try {
    fs.rmSync(directory, { recursive: true, force: true, maxRetries: 5, retryDelay: 50 });
  } catch {
    // Left for removeLeftoverProfiles of the next keeper.
  }
}
