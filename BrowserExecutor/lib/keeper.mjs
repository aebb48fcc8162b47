/**
 * The keeper: owns Chromium and the task spaces, and serves scripts on a Unix socket. It ends with
 * Chromium, when asked to, and when nobody has needed it for a while.
 */

import net from 'node:net';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import { BrowserWatch, SILENCE_LIMIT } from './browser-watch.mjs';
import { Chromium } from './chromium.mjs';
import { ClientChannel } from './client-channel.mjs';
import { SilentBrowserError } from './devtools-pipe.mjs';
import { KeeperLog } from './keeper-log.mjs';
import {
  createProfile,
  removeLeftoverProfiles,
  removeLeftoverSocket,
  removeDirectory,
} from './paths.mjs';
import { identify } from './process-identity.mjs';
import { PROTOCOL_VERSION } from './protocol.mjs';
import { SpaceBrowser } from './space-browser.mjs';
import { SpaceLogins } from './space-logins.mjs';
import { TaskSpaces } from './task-spaces.mjs';
import { VERSION } from './version.mjs';

/** How long a keeper whose browser did not start waits for a client to tell the reason to. */
const TELL_TIMEOUT = 2_000;

/** How long clients may take to read the keeper's last words. */
const FAREWELL_TIMEOUT = 1_000;

/** How long a page may take for a sum before it counts as hanging: what it shows is lost then. */
const PAGE_SILENCE_LIMIT = 10_000;

const seconds = (milliseconds) => `${milliseconds / 1000} s`;

export class Keeper {
  #paths;
  #env;
  #idleExit;
  #log;
  #server;
  #profile;
  #chromium;
  #ready;
  #logins;
  #spaces = new TaskSpaces(() => this.#chromium.pipe, {
    prepare: (space) => this.#logins.give(space),
    retire: (space) => this.#logins.keep(space),
  });
  #channels = new Map(); // of each client: what it has here
  #hadClient = false;
  #idleTimer;
  #directoryWatch;
  #isFound = () => false;
  #ending;
  #failure = null;
  #watch = new BrowserWatch({
    ping: () => this.#chromium.ping(),
    isNeeded: () => !this.#ending && this.#channels.size > 0,
    onSilence: () => this.#endSilentBrowser(),
  });

  #methods = {
    hello: () => ({ protocol: PROTOCOL_VERSION, pid: process.pid, version: VERSION }),
    list: async () => ({ spaces: await this.#spaces.list() }),
    status: () => this.#status(),
    open: (params, channel) => this.#open(params, channel),
    complete: (params) => this.#complete(params),
    downloads: (_params, channel) => this.#downloads(channel),
    renew: (params) => this.#renewLogin(params),
    stop: (_params, channel) => this.#stop(channel),
  };

  /**
   * @param {object} options
   * @param {import('./paths.mjs').KeeperPaths} options.paths its directory exists, and this
   *   process holds the lock
   * @param {NodeJS.ProcessEnv} options.env
   * @param {number} options.idleExit milliseconds without client and task space until it ends
   */
  constructor({ paths, env, idleExit }) {
    this.#paths = paths;
    this.#env = env;
    this.#idleExit = idleExit;
    this.#log = new KeeperLog(paths.log);
    this.#logins = new SpaceLogins({ env, pipe: () => this.#chromium.pipe, log: this.#log });
  }

  /**
   * Binds the socket and starts Chromium. Does not wait for it: clients do, with their requests.
   * @returns {Promise<void>}
   * @throws {Error} when the socket cannot be bound or the profile not be created
   */
  async start() {
    this.#record();
    await this.#listen();
    if (this.#ending) return;
    removeLeftoverProfiles(this.#paths.directory);
    this.#profile = createProfile(this.#paths.directory);
    this.#ready = this.#startBrowser();
    this.#ready.catch((error) => this.#giveUp(error));
    this.#watchIdle();
  }

  /**
   * Ends the keeper: closes the socket, tells the clients why, ends Chromium and removes the
   * files. Nothing that it started is left then; further calls give the same promise.
   * @param {string} reason for the clients
   * @param {ClientChannel} [asker] a client whose connection closes only when all is done
   * @returns {Promise<void>}
   */
  end(reason, asker) {
    this.#ending ??= this.#end(reason, asker);
    return this.#ending;
  }

  /**
   * Called once the keeper has ended, with why it was of no use at all: its browser did not start.
   * @type {(failure: string | null) => void}
   */
  onEnded = () => {};

  async #end(reason, asker) {
    clearTimeout(this.#idleTimer);
    this.#directoryWatch?.close();
    this.#log.write(`ends: ${reason}`);
    if (this.#isFound()) this.#server.close(); // removes the socket's file, whosever it is
    const farewell = { event: 'ending', reason, lost: this.#spaces.names };
    const others = [...this.#channels.keys()].filter((channel) => channel !== asker);
    await within(FAREWELL_TIMEOUT, Promise.all(others.map((channel) => channel.end(farewell))));
    await this.#chromium?.end();
    for (const client of this.#channels.values()) this.#releaseClient(client);
    if (this.#profile) removeDirectory(this.#profile);
    if (asker) await within(FAREWELL_TIMEOUT, asker.end(farewell));
    this.onEnded(this.#failure);
  }

  async #listen() {
    removeLeftoverSocket(this.#paths.socket);
    this.#server = net.createServer((socket) => this.#welcome(socket));
    await new Promise((resolve, reject) => {
      this.#server.once('error', reject);
      // The socket gets its mode 0600 as it is created; listen binds before it returns.
      const umask = process.umask(0o177);
      this.#server.listen(this.#paths.socket, resolve);
      process.umask(umask);
    });
    this.#watchSocket();
  }

  // Whoever clears the directory, as the system does when the user logs out, leaves a keeper that
  // no script finds and that lets no other one start.
  #watchSocket() {
    const inode = () => {
      try {
        return fs.statSync(this.#paths.socket).ino;
      } catch {
        return null;
      }
    };
    const ours = inode();
    this.#isFound = () => inode() === ours;
    const check = () => this.#isFound() || this.end('its socket was removed');
    try {
      this.#directoryWatch = fs.watch(this.#paths.directory, check);
      this.#directoryWatch.on('error', check);
    } catch (error) {
      this.#log.write(`nobody will tell when the socket is removed: ${error.message}`);
    }
  }

  async #startBrowser() {
    this.#chromium = new Chromium({
      env: this.#env,
      profile: this.#profile,
      onEvent: ({ method, params }) => this.#handleEvent(method, params),
    });
    this.#record();
    await this.#chromium.ready;
    const caution = this.#chromium.sandboxed ? '' : ', without its sandbox, since this is root';
    this.#log.write(`started ${this.#chromium.product}${caution}`);
    this.#chromium.ended.then(() => this.end('the browser ended unexpectedly'));
    await this.#chromium.pipe.send('Target.setDiscoverTargets', { discover: true });
    this.#watch.start();
  }

  // Whoever finds us hanging has to know which processes to end.
  #record() {
    const browser = this.#chromium?.pid ? identify(this.#chromium.pid) : null;
    fs.writeFileSync(this.#paths.lock, JSON.stringify({ ...identify(process.pid), browser }));
  }

  async #giveUp(error) {
    const deadline = Date.now() + TELL_TIMEOUT;
    while (!this.#hadClient && Date.now() < deadline) await sleep(20);
    this.#failure = error.message;
    this.end(error.message);
  }

  #endSilentBrowser() {
    this.#chromium.kill();
    this.end(`the browser did not answer for ${seconds(SILENCE_LIMIT)}`);
  }

  #welcome(socket) {
    const client = { view: null, downloads: null };
    const channel = new ClientChannel(socket, {
      onRequest: (method, params) => this.#handle(method, params, channel),
      onCommand: (command) => client.view?.receive(command),
      onClose: () => {
        this.#channels.delete(channel);
        this.#releaseClient(client);
        this.#watchIdle();
      },
    });
    this.#channels.set(channel, client);
    this.#hadClient = true;
    this.#watchIdle();
    if (this.#chromium?.product) this.#watch.start();
  }

  #releaseClient(client) {
    const { view } = client;
    view?.release();
    client.view = null;
    if (view && !this.#ending && !this.#isUsed(view.space)) this.#logins.keep(view.space);
    if (client.downloads) removeDirectory(client.downloads);
    client.downloads = null;
  }

  async #handle(method, params, channel) {
    if (!Object.hasOwn(this.#methods, method)) throw new Error(`no method ${method}`);
    return this.#methods[method](params, channel);
  }

  #handleEvent(method, params) {
    const views = [...this.#channels.values()].map(({ view }) => view).filter(Boolean);
    if (method === 'Target.detachedFromTarget') {
      for (const view of views) view.handleDetached(params);
      return;
    }
    if (method === 'Target.attachedToTarget') return; // the reply tells as much
    const space = this.#spaces.handleEvent(method, params);
    if (!space) return;
    // A crashed page answers nothing any more: it is closed, and the next open makes a fresh one.
    if (method === 'Target.targetCrashed') this.#closePage(params.targetId);
    for (const view of views) {
      if (view.space === space) view.handleTargetEvent(method, params);
    }
  }

  #closePage(targetId) {
    this.#chromium.pipe.send('Target.closeTarget', { targetId }).catch(() => {});
  }

  #watchIdle() {
    clearTimeout(this.#idleTimer);
    const idle = () => this.#channels.size === 0 && this.#spaces.size === 0;
    if (!idle()) return;
    const onTime = () => idle() && this.end('it was idle');
    this.#idleTimer = setTimeout(onTime, this.#idleExit);
  }

  async #status() {
    const spaces = await this.#spaces.list();
    return { pid: process.pid, browser: this.#chromium?.product ?? '', spaces };
  }

  async #open({ name }, channel) {
    await this.#ready;
    const client = this.#channels.get(channel);
    if (!client || client.view) throw new Error('this connection has its task space already');
    const notes = [];
    const check = async (space) => notes.push(...(await this.#replaceHangingPage(space)));
    const { space, targetId, created } = await this.#spaces.open(name, check);
    client.view = new SpaceBrowser({ pipe: this.#chromium.pipe, channel, space });
    return { page: targetId, created, notes };
  }

  /** Closes the page that the next script would get, when it hangs and no other script uses it. */
  async #replaceHangingPage(space) {
    const targetId = space.page;
    if (this.#isUsed(space) || (await this.#pageAnswers(targetId))) return [];
    const { url } = space.targets.get(targetId) ?? {};
    space.targets.delete(targetId);
    this.#closePage(targetId);
    const note =
      `the page of task space ${JSON.stringify(space.name)} (${url}) did not answer for ` +
      `${seconds(PAGE_SILENCE_LIMIT)}: it was closed, and an empty one has taken its place`;
    this.#log.write(note);
    return [note];
  }

  #isUsed(space) {
    return [...this.#channels.values()].some(({ view }) => view?.space === space);
  }

  async #pageAnswers(targetId) {
    const { pipe } = this.#chromium;
    const limit = { timeout: PAGE_SILENCE_LIMIT };
    let sessionId;
    try {
      const attach = { targetId, flatten: true };
      ({ sessionId } = await pipe.send('Target.attachToTarget', attach, limit));
      await pipe.send('Runtime.evaluate', { expression: '1 + 1' }, { sessionId, ...limit });
      return true;
    } catch (error) {
      return !(error instanceof SilentBrowserError); // one that is just closing is no matter
    } finally {
      if (sessionId) pipe.send('Target.detachFromTarget', { sessionId }).catch(() => {});
    }
  }

  async #complete({ name, keep }) {
    await this.#ready;
    const result = await this.#spaces.complete(name, keep === true);
    this.#watchIdle();
    return result;
  }

  async #downloads(channel) {
    const client = this.#channels.get(channel);
    if (!client) throw new Error('the client is gone');
    client.downloads ??= fs.mkdtempSync(path.join(os.tmpdir(), 'verdo-downloads-'));
    return { directory: client.downloads };
  }

  async #renewLogin({ name }) {
    const space = this.#spaces.find(name);
    if (space) await this.#logins.give(space);
    return { found: space !== undefined };
  }

  #stop(channel) {
    this.end('it was asked to stop', channel);
    return {};
  }
}

function within(milliseconds, promise) {
  return Promise.race([promise, sleep(milliseconds)]);
}
