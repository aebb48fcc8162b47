/**
 * The keeper: owns Chromium and the task spaces, and serves scripts on a Unix socket. It ends with
 * Chromium, when asked to, and when nobody has needed it for a while.
 */

import net from 'node:net';
import { rmSync } from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';

import { Chromium } from './chromium.mjs';
import { ClientChannel } from './client-channel.mjs';
import { createProfile, removeLeftoverProfiles, removeProfile } from './paths.mjs';
import { PROTOCOL_VERSION } from './protocol.mjs';
import { SessionTable } from './session-table.mjs';
import { TaskSpaces } from './task-spaces.mjs';

/** How long a keeper whose browser did not start waits for a client to tell the reason to. */
const TELL_TIMEOUT = 2_000;

/** How long clients may take to read the keeper's last words. */
const FAREWELL_TIMEOUT = 1_000;

export class Keeper {
  #paths;
  #env;
  #idleExit;
  #server;
  #profile;
  #chromium;
  #ready;
  #spaces = new TaskSpaces(() => this.#chromium.pipe);
  #sessions = new SessionTable(() => this.#chromium.pipe);
  #channels = new Set();
  #hadClient = false;
  #idleTimer;
  #ending;

  #methods = {
    hello: () => ({ protocol: PROTOCOL_VERSION, pid: process.pid }),
    list: async () => ({ spaces: await this.#spaces.list() }),
    status: () => this.#status(),
    open: (params, channel) => this.#open(params, channel),
    complete: (params) => this.#complete(params),
    send: (params, channel) => this.#sendCommand(params, channel),
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
  }

  /**
   * Binds the socket and starts Chromium. Does not wait for it: clients do, with their requests.
   * @returns {Promise<void>}
   * @throws {Error} when the socket cannot be bound or the profile not be created
   */
  async start() {
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

  /** Called once the keeper has ended. */
  onEnded = () => {};

  async #end(reason, asker) {
    clearTimeout(this.#idleTimer);
    this.#server.close(); // removes the socket's file
    const farewell = { event: 'ending', reason };
    const others = [...this.#channels].filter((channel) => channel !== asker);
    await within(FAREWELL_TIMEOUT, Promise.all(others.map((channel) => channel.end(farewell))));
    await this.#chromium?.end();
    removeProfile(this.#profile);
    if (asker) await within(FAREWELL_TIMEOUT, asker.end(farewell));
    this.onEnded();
  }

  async #listen() {
    rmSync(this.#paths.socket, { force: true }); // left by a killed keeper: the lock is ours
    this.#server = net.createServer((socket) => this.#welcome(socket));
    await new Promise((resolve, reject) => {
      this.#server.once('error', reject);
      // The socket gets its mode 0600 as it is created; listen binds before it returns.
      const umask = process.umask(0o177);
      this.#server.listen(this.#paths.socket, resolve);
      process.umask(umask);
    });
  }

  async #startBrowser() {
    this.#chromium = new Chromium({
      env: this.#env,
      profile: this.#profile,
      onEvent: (message) => {
        this.#spaces.handleEvent(message.method, message.params);
        this.#sessions.handleEvent(message);
      },
    });
    await this.#chromium.ready;
    this.#chromium.ended.then(() => this.end('the browser ended unexpectedly'));
    await this.#chromium.pipe.send('Target.setDiscoverTargets', { discover: true });
  }

  async #giveUp(error) {
    const deadline = Date.now() + TELL_TIMEOUT;
    while (!this.#hadClient && Date.now() < deadline) await sleep(20);
    this.end(error.message);
  }

  #welcome(socket) {
    const channel = new ClientChannel(socket, {
      onRequest: (method, params) => this.#handle(method, params, channel),
      onClose: () => {
        this.#channels.delete(channel);
        this.#sessions.release(channel);
        this.#watchIdle();
      },
    });
    this.#channels.add(channel);
    this.#hadClient = true;
    this.#watchIdle();
  }

  async #handle(method, params, channel) {
    if (!Object.hasOwn(this.#methods, method)) throw new Error(`no method ${method}`);
    return this.#methods[method](params, channel);
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
    const { targetId, created } = await this.#spaces.open(name);
    try {
      return { session: await this.#sessions.attach(channel, targetId), created };
    } catch {
      // The page closed itself in this moment: the task space gets another.
      this.#spaces.forgetPage(targetId);
      const next = await this.#spaces.open(name);
      return { session: await this.#sessions.attach(channel, next.targetId), created };
    }
  }

  async #complete({ name, keep }) {
    await this.#ready;
    return this.#spaces.complete(name, keep === true);
  }

  async #sendCommand({ session, method, params }, channel) {
    if (!this.#sessions.owns(channel, session)) throw new Error('the page is no longer open');
    const pipe = this.#chromium.pipe;
    const reply = pipe.send(method, params, { sessionId: session });
    if (pipe.waitForDrain(() => channel.resume())) channel.pause();
    return reply;
  }

  #stop(channel) {
    this.end('it was asked to stop', channel);
    return {};
  }
}

function within(milliseconds, promise) {
  return Promise.race([promise, sleep(milliseconds)]);
}
