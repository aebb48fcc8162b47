/** A script's connection to the keeper: requests, DevTools messages, and why it was lost. */

import net from 'node:net';

import { FrameSplitter } from './frames.mjs';
import {
  DEVTOOLS_MARK,
  MAX_REPLY_BYTES,
  MAX_REQUEST_BYTES,
  NEWLINE,
  PROTOCOL_VERSION,
  decode,
  encode,
} from './protocol.mjs';

/** A keeper that takes longer to say hello hangs: it does nothing that takes time. */
const HELLO_TIMEOUT = 5_000;
const REQUEST_TIMEOUT = 30_000;

/** The keeper is there and does not answer. */
export class SilentKeeperError extends Error {}

/** The keeper ended while it was needed. */
export class KeeperLostError extends Error {
  /** Names of the task spaces that are lost with it. @type {string[]} */
  lost = [];
}

export class KeeperConnection {
  #socket;
  #pending = new Map();
  #lastId = 0;
  #holds = 0;
  #lastWords = { reason: 'the browser keeper ended unexpectedly', lost: [] };

  /** Gets each DevTools message, a JSON text. @type {(message: string) => void} */
  onDevTools = () => {};

  /**
   * What hello told; old keepers tell no version.
   * @type {{protocol: number, pid: number, version?: string}}
   */
  keeper = { protocol: 0, pid: 0 };

  /**
   * Connects to a running keeper, of whatever version.
   * @param {string} socketPath
   * @returns {Promise<KeeperConnection | null>} null when none is there, or it is just ending
   * @throws {SilentKeeperError} when it does not answer
   * @throws {Error} when the socket cannot be used
   */
  static async open(socketPath) {
    const socket = await connect(socketPath);
    if (!socket) return null;
    const connection = new KeeperConnection(socket);
    return (await connection.#greet()) ? connection : null;
  }

  /** Takes ownership of a connected socket. @param {net.Socket} socket */
  constructor(socket) {
    this.#socket = socket;
    const splitter = new FrameSplitter({
      delimiter: NEWLINE,
      limit: MAX_REPLY_BYTES,
      onFrame: (line) => this.#receive(line.text()),
      onOversize: () => socket.destroy(new Error('an answer is too large')),
    });
    socket.on('data', (chunk) => splitter.push(chunk));
    socket.on('error', () => {}); // 'close' follows
    /** Fulfils when the connection is closed. @type {Promise<void>} */
    this.closed = new Promise((resolve) => {
      socket.on('close', () => {
        for (const id of [...this.#pending.keys()]) this.#take(id).reject(this.lostError());
        resolve();
      });
    });
    socket.unref();
  }

  /** Whether requests can be sent. */
  get usable() {
    return !this.#socket.destroyed;
  }

  /** Whether the keeper speaks all of our protocol, not only what every version does. */
  get speaksOurProtocol() {
    return this.keeper.protocol === PROTOCOL_VERSION;
  }

  /**
   * Sends one request. The process stays alive while one is unanswered.
   * @param {string} method see protocol.mjs
   * @param {object} [params]
   * @param {{timeout?: number}} [options] milliseconds, REQUEST_TIMEOUT unless given
   * @returns {Promise<object>} the result; rejects with the keeper's message, or with a
   *   KeeperLostError
   */
  request(method, params = {}, { timeout = REQUEST_TIMEOUT } = {}) {
    if (!this.usable) return Promise.reject(this.lostError());
    const id = ++this.#lastId;
    return new Promise((resolve, reject) => {
      const late = () => {
        const message = `the browser keeper (pid ${this.keeper.pid}) does not answer`;
        this.#take(id)?.reject(
          new SilentKeeperError(`${message} to ${method}: over ${timeout} ms`),
        );
      };
      this.#pending.set(id, { resolve, reject, timer: setTimeout(late, timeout) });
      this.hold();
      this.#socket.write(encode({ id, method, params }));
    });
  }

  /**
   * Sends one DevTools message.
   * @param {string} message JSON
   * @throws {Error} when it is too large
   */
  sendDevTools(message) {
    if (Buffer.byteLength(message) >= MAX_REQUEST_BYTES) {
      const megabytes = MAX_REQUEST_BYTES / 1024 / 1024;
      throw new Error(`what is sent to the page at once can have ${megabytes} MiB, not more`);
    }
    if (this.usable) this.#socket.write(`${DEVTOOLS_MARK}${message}\n`);
  }

  /** Keeps the process alive until the matching `release`. */
  hold() {
    if (++this.#holds === 1) this.#socket.ref();
  }

  release() {
    if (--this.#holds === 0) this.#socket.unref();
  }

  /** Why the connection is lost, if it is. @returns {KeeperLostError} */
  lostError() {
    const { reason, lost } = this.#lastWords;
    return Object.assign(new KeeperLostError(reason), { lost });
  }

  close() {
    this.#socket.destroy();
  }

  // A keeper that ends as we connect closes without an answer: to us there is none.
  async #greet() {
    try {
      this.keeper = await this.request('hello', {}, { timeout: HELLO_TIMEOUT });
      return true;
    } catch (error) {
      if (error instanceof KeeperLostError) return false;
      this.close();
      throw error;
    }
  }

  #receive(line) {
    if (line.startsWith(DEVTOOLS_MARK)) {
      this.onDevTools(line.slice(1));
      return;
    }
    const message = decode(line);
    if (message.event === 'ending') {
      const { reason, lost = [] } = message;
      this.#lastWords = { reason: `the browser keeper ended: ${reason}`, lost };
    } else if (message.error) {
      this.#take(message.id)?.reject(new Error(message.error.message));
    } else {
      this.#take(message.id)?.resolve(message.result);
    }
  }

  #take(id) {
    const entry = this.#pending.get(id);
    if (!entry) return undefined;
    this.#pending.delete(id);
    clearTimeout(entry.timer);
    this.release();
    return entry;
  }
}

function connect(socketPath) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(socketPath);
    socket.once('connect', () => resolve(socket));
    socket.once('error', (error) => {
      // No socket, one that a killed keeper left behind, or that of one which is just dying.
      if (['ENOENT', 'ECONNREFUSED', 'ECONNRESET'].includes(error.code)) resolve(null);
      else if (error.code === 'EAGAIN') reject(new SilentKeeperError('the browser keeper is full'));
      else reject(new Error(`cannot connect to the browser keeper: ${error.message}`));
    });
  });
}
