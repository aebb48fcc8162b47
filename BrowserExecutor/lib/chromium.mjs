/** Finds, starts and ends the headless Chromium that the keeper owns. */

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import { DevToolsPipe } from './devtools-pipe.mjs';
import { chromiumEnvironment } from './environment.mjs';

const START_TIMEOUT = 20_000;
const END_TIMEOUT = 3_000;
const LAST_WORDS_TIMEOUT = 1_000;
const STDERR_TAIL = 2_000;

const WINDOWLESS = 'chromium-headless-shell';
const PROGRAMS = [WINDOWLESS, 'chromium'];

const FLAGS = [
  '--remote-debugging-pipe',
  '--disable-quic',
  '--no-first-run',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
  '--disable-dev-shm-usage',
  '--site-per-process', // the default of a browser with a window: a site's process is its own
];

const HEADLESS_FLAGS = ['--headless', '--disable-gpu', '--window-size=1280,800'];

const VISIBLE_FLAGS = ['--no-default-browser-check', '--password-store=basic', 'about:blank'];

/**
 * The Chromium to use: VERDO_BROWSER_CHROMIUM (a path, or a name on PATH) when set, otherwise the
 * first of the known programs on PATH.
 * @param {NodeJS.ProcessEnv} env
 * @param {{visible?: boolean}} [options] whether it has to have a window
 * @returns {string} absolute path of an executable file
 * @throws {Error} that says what to install or to set
 */
export function findChromium(env, { visible = false } = {}) {
  const named = env.VERDO_BROWSER_CHROMIUM;
  const programs = visible ? PROGRAMS.filter((name) => name !== WINDOWLESS) : PROGRAMS;
  for (const name of named ? [named] : programs) {
    const found = findProgram(name, env.PATH ?? '');
    if (found) return found;
  }
  if (named) {
    throw new Error(`VERDO_BROWSER_CHROMIUM names ${named}, which is not an executable program`);
  }
  const kind = visible ? 'a Chromium with a window' : 'Chromium';
  throw new Error(
    `${kind} was not found: install the package ${programs.join(' or ')}, ` +
      'or name the program in VERDO_BROWSER_CHROMIUM',
  );
}

function findProgram(name, searchPath) {
  const candidates = name.includes('/')
    ? [path.resolve(name)]
    : searchPath.split(':').map((directory) => path.resolve(directory, name));
  return candidates.find(isExecutableFile);
}

function isExecutableFile(file) {
  try {
    fs.accessSync(file, fs.constants.X_OK);
    return fs.statSync(file).isFile();
  } catch {
    return false;
  }
}

/**
 * One Chromium process. It ends with this process, however that ends, because its pipe closes.
 */
export class Chromium {
  #child;
  #product = '';

  /** @type {DevToolsPipe} */
  pipe;

  /** Fulfils when Chromium answers; rejects with the end of its messages when it does not. */
  ready;

  /** Fulfils when the process has ended. */
  ended;

  /**
   * Spawns Chromium; `ready` tells when it is up.
   * @param {object} options
   * @param {NodeJS.ProcessEnv} options.env
   * @param {string} options.profile private user-data directory
   * @param {(message: object) => void} options.onEvent DevTools events of the browser itself
   * @param {boolean} [options.visible] shows a window, on the display that `env` names
   * @throws {Error} when there is no Chromium on this machine
   */
  constructor({ env, profile, onEvent, visible = false }) {
    const program = findChromium(env, { visible });
    const look = visible ? VISIBLE_FLAGS : HEADLESS_FLAGS;
    const flags = [...look, ...FLAGS, `--user-data-dir=${profile}`];
    if (!this.sandboxed) flags.push('--no-sandbox'); // as root it cannot set one up
    // A process group of its own: the packaged program is a shell script around the real one, and
    // the group reaches both.
    this.#child = spawn(program, flags, {
      cwd: profile,
      detached: true,
      // A dump of a crash holds what the pages held: it goes with the profile.
      env: { ...chromiumEnvironment(env), BREAKPAD_DUMP_LOCATION: path.join(profile, 'crashes') },
      stdio: ['ignore', 'ignore', 'pipe', 'pipe', 'pipe'],
    });
    const [, , stderr, commands, replies] = this.#child.stdio;
    let tail = '';
    stderr.on('data', (text) => (tail = (tail + text).slice(-STDERR_TAIL)));
    this.pipe = new DevToolsPipe(commands, replies, onEvent);
    replies.once('close', () => this.kill()); // without its pipe it is of no use
    this.ended = new Promise((resolve) => {
      this.#child.once('exit', () => resolve());
      this.#child.once('error', (error) => {
        tail += error.message;
        this.pipe.close('the browser ended');
        resolve();
      });
    });
    const silent = new Promise((resolve) => this.#child.once('close', resolve));
    this.ready = this.#greet().catch(async (error) => {
      await Promise.race([silent, sleep(LAST_WORDS_TIMEOUT)]); // its messages may trail behind
      throw new Error(`${program} did not start: ${error.message}\n${tail}`.trim());
    });
  }

  /** Whether pages are held in Chromium's own sandbox, which it cannot set up as root. */
  get sandboxed() {
    return process.getuid() !== 0;
  }

  /** Its process, which leads a group of its own; undefined when it could not be started. */
  get pid() {
    return this.#child.pid;
  }

  /** Product and version, such as "HeadlessChrome/120.0"; empty until it is ready. */
  get product() {
    return this.#product;
  }

  /** Asks for a sign of life. */
  ping() {
    return this.pipe.send('Browser.getVersion');
  }

  async #greet() {
    const version = await this.pipe.send('Browser.getVersion', {}, { timeout: START_TIMEOUT });
    this.#product = version.product;
  }

  /** Ends Chromium: asks, waits 3 s, then kills its process group. Safe to call at any time. */
  async end() {
    this.pipe.send('Browser.close', {}, { timeout: END_TIMEOUT }).catch(() => {});
    await Promise.race([this.ended, sleep(END_TIMEOUT)]);
    this.kill();
    await Promise.race([this.ended, sleep(END_TIMEOUT)]);
    this.pipe.close('the browser ended');
  }

  /** Ends it at once. Also after the leader has ended: a helper process may still be there. */
  kill() {
    if (!this.#child.pid) return;
    try {
      process.kill(-this.#child.pid, 'SIGKILL');
    } catch {
      // Nobody is left in the group.
    }
  }
}
