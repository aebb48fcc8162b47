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
 * @property {string} lock      file whose flock(2) lock the keeper holds as long as it lives
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
  return { directory, socket, lock: path.join(directory, 'keeper.lock') };
}

/**
 * Whether the private directory is there. One that someone else could have put a socket into is
 * refused: what scripts send through the socket is for this user's keeper alone.
 * @param {string} directory
 * @returns {boolean}
 * @throws {Error} when it is no directory of this user
 */
export function hasPrivateDirectory(directory) {
  let stat;
  try {
    stat = fs.lstatSync(directory, { throwIfNoEntry: false });
  } catch (error) {
    throw unusable(directory, error.message);
  }
  if (!stat) return false;
  if (!stat.isDirectory()) throw unusable(directory, 'it is not a directory');
  if (stat.uid !== process.getuid()) throw unusable(directory, `it belongs to user ${stat.uid}`);
  return true;
}

/**
 * Creates the private directory, or takes an existing one that belongs to this user, and sees to
 * its mode 0700.
 * @param {string} directory
 * @throws {Error} when it cannot be created or belongs to someone else
 */
export function ensurePrivateDirectory(directory) {
  try {
    fs.mkdirSync(directory, { recursive: true, mode: 0o700 });
  } catch (error) {
    throw unusable(directory, error.message);
  }
  hasPrivateDirectory(directory);
  fs.chmodSync(directory, 0o700);
}

function unusable(directory, reason) {
  return new Error(
    `cannot use the directory ${directory}: ${reason}; ` +
      'set XDG_RUNTIME_DIR to a directory of your own',
  );
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
    if (entry.startsWith(PROFILE_PREFIX)) removeProfile(path.join(directory, entry));
  }
}

/**
 * Removes a profile directory. A browser that is just ending may still write into it: what cannot
 * be removed now is removed by the next keeper.
 * @param {string} profile
 */
export function removeProfile(profile) {
  try {
    fs.rmSync(profile, { recursive: true, force: true, maxRetries: 5, retryDelay: 50 });
  } catch {
    // Left for removeLeftoverProfiles of the next keeper.
  }
}
