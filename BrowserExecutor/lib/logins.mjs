/**
 * What a person has logged in to, kept in files: the base login, which every new task space starts
 * with a copy of, and those of single task spaces.
 */

import { createHash } from 'node:crypto';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { ensureOwnDirectory, hasOwnDirectory } from './paths.mjs';
import { identify } from './process-identity.mjs';

const FORMAT = 1;
const BASE = 'base.json';
const WINDOW_PREFIX = 'window-';
const OWNER = 'owner.json';

/**
 * @typedef {object} Login
 * @property {object[]} cookies as DevTools' Storage.setCookies takes them
 * @property {{origin: string, items: [string, string][]}[]} storage the sites' local storage
 */

export class Logins {
  #directory;

  /** @param {NodeJS.ProcessEnv} env */
  constructor(env) {
    const state = env.XDG_STATE_HOME;
    const base =
      state && path.isAbsolute(state)
        ? state
        : path.join(env.HOME || os.homedir(), '.local', 'state');
    this.#directory = path.join(base, 'verdo-browser');
  }

  /**
   * Creates a directory for the files of a browser in which a person logs in, mode 0700, and
   * removes those that killed processes have left: there are logins in them, too.
   * @returns {string} absolute path
   * @throws {Error} when it cannot be created
   */
  createWindowProfile() {
    this.#prepare();
    this.#removeLeftovers();
    const profile = fs.mkdtempSync(path.join(this.#directory, WINDOW_PREFIX));
    fs.writeFileSync(path.join(profile, OWNER), JSON.stringify(identify(process.pid)));
    return profile;
  }

  /**
   * @param {string} [name] of a task space; the base login without
   * @returns {Login | null} null when none is kept
   * @throws {Error} when it cannot be read
   */
  read(name) {
    if (!hasOwnDirectory(this.#directory, 'XDG_STATE_HOME')) return null;
    const file = this.#file(name);
    let text;
    try {
      text = fs.readFileSync(file, 'utf8');
    } catch (error) {
      if (error.code === 'ENOENT') return null;
      throw error;
    }
    const { format, cookies, storage } = JSON.parse(text);
    if (format !== FORMAT) throw new Error(`${file} is of another version of verdo-browser`);
    return { cookies, storage };
  }

  /**
   * @param {string | undefined} name
   * @param {Login} login
   * @throws {Error} when it cannot be written; what was kept before is still there then
   */
  write(name, { cookies, storage }) {
    this.#prepare();
    const file = this.#file(name);
    const fresh = `${file}.${process.pid}`;
    const text = JSON.stringify({ format: FORMAT, name, cookies, storage });
    try {
      fs.writeFileSync(fresh, text, { mode: 0o600, flush: true });
      fs.renameSync(fresh, file);
    } catch (error) {
      fs.rmSync(fresh, { force: true });
      throw error;
    }
  }

  /** @param {string} [name] @returns {boolean} whether there was one */
  forget(name) {
    if (!hasOwnDirectory(this.#directory, 'XDG_STATE_HOME')) return false;
    const file = this.#file(name);
    const had = fs.existsSync(file);
    fs.rmSync(file, { force: true });
    return had;
  }

  #prepare() {
    ensureOwnDirectory(this.#directory, 'XDG_STATE_HOME');
  }

  #removeLeftovers() {
    for (const entry of fs.readdirSync(this.#directory)) {
      const file = path.join(this.#directory, entry);
      const writer = /\.json\.(\d+)$/.exec(entry)?.[1];
      const isWindow = entry.startsWith(WINDOW_PREFIX);
      if ((writer && !identify(writer)) || (isWindow && !hasLivingOwner(file))) {
        fs.rmSync(file, { recursive: true, force: true, maxRetries: 10, retryDelay: 100 });
      }
    }
  }

  // A name may hold what no file name can.
  #file(name) {
    if (name === undefined) return path.join(this.#directory, BASE);
    const hash = createHash('sha256').update(name).digest('hex');
    return path.join(this.#directory, `space-${hash}.json`);
  }
}

function hasLivingOwner(profile) {
  try {
    const { pid, start } = JSON.parse(fs.readFileSync(path.join(profile, OWNER), 'utf8'));
    return identify(pid)?.start === start;
  } catch {
    return false; // it was killed before it could say so
  }
}
