/** A script's connection to the keeper: requests, events, and one reason when it is lost. */

import net from 'node:net';

import { FrameSplitter } from './frames.mjs';
import { MAX_REPLY_BYTES, NEWLINE, PROTOCOL_VERSION, decode, encode } from './protocol.mjs';

const HELLO_TIMEOUT = 10_000;
export const REQUEST_TIMEOUT = 30_000;

export class KeeperConnection {
  #socket;
  #pending = new Map();
  #sessions = new Map();
  #lastId = 0;
  #lostReason = 'the browser keeper ended unexpectedly';

  /**
   * Connects to a running keeper.
   * @param {string} socketPath
   * @returns {Promise<KeeperConnection | null>} null when none is there, or it is just ending
   * @throws {Error} when the socket cannot be used, or the keeper speaks another protocol
   */
  static async open(socketPath) {
    const socket = await connect(socketPath);
    if (!socket) return null;
    const connection = new KeeperConnection(socket);
    const hello = await connection.#greet();
    if (hello && hello.protocol !== PROTOCOL_VERSION) {
      connection.close();
      throw new Error(
        `the running keeper (pid ${hello.pid}) is of another version: run verdo-browser stop`,
      );
    }
    return hello && connection;
  }

  /** Takes ownership of a connected socket. @param {net.Socket} socket */
  constructor(socket) {
    this.#socket = socket;
    const splitter = new FrameSplitter({
      delimiter: NEWLINE,
      limit: MAX_REPLY_BYTES,
      onFrame: (line) => this.#receive(decode(line)),
      onOversize: () => socket.destroy(new Error('an answer is too large')),
    });
    socket.on('data', (chunk) => splitter.push(chunk));
    socket.on('error', () => {}); // 'close' follows
    /** Fulfils when the connection is closed. @type {Promise<void>} */
    this.closed = new Promise((resolve) => {
      socket.on('close', () => {
        this.#lose();
        resolve();
      });
    });
    socket.unref();
  }

  /** Whether requests can be sent. */
  get usable() {
    return !this.#socket.destroyed;
  }

  /**
   * Sends one request. The process stays alive while one is unanswered.
   * @param {string} method see protocol.mjs
   * @param {object} [params]
   * @param {{timeout?: number}} [options] milliseconds, REQUEST_TIMEOUT unless given; Infinity
   *   waits for as long as the connection lasts
   * @returns {Promise<object>} the result; rejects with the keeper's message
   */
  request(method, params = {}, { timeout = REQUEST_TIMEOUT } = {}) {
    if (!this.usable) return Promise.reject(new Error(this.#lostReason));
    const id = ++this.#lastId;
    return new Promise((resolve, reject) => {
      const entry = { resolve, reject, timer: undefined };
      if (timeout !== Infinity) {
        const what = params.method ? `the page does not answer: ${params.method}` : method;
        const late = () => this.#take(id)?.reject(new Error(`${what}: over ${timeout} ms`));
        entry.timer = setTimeout(late, timeout);
      }
      this.#pending.set(id, entry);
      this.#socket.ref();
      this.#socket.write(encode({ id, method, params }));
    });
  }

  /**
   * Has a session's events delivered.
   * @param {string} session
   * @param {(event: object) => void} onEvent gets "devtools" and "detached" events
   */
  listen(session, onEvent) {
    this.#sessions.set(session, onEvent);
  }

  close() {
    this.#socket.destroy();
  }

  // A keeper that ends as we connect closes without an answer: to us there is none.
  async #greet() {
    try {
      return await this.request('hello', {}, { timeout: HELLO_TIMEOUT });
    } catch (error) {
      if (!this.usable) return null;
      this.close();
      throw new Error(`the browser keeper does not answer (${error.message})`);
    }
  }

  #receive(message) {
    if (message.event === 'ending') {
      this.#lostReason = `the browser keeper ended: ${message.reason}`;
    } else if (message.event) {
      this.#sessions.get(message.session)?.(message);
    } else if (message.error) {
      this.#take(message.id)?.reject(new Error(message.error.message));
    } else {
      this.#take(message.id)?.resolve(message.result);
    }
  }

  #lose() {
    const error = () => new Error(this.#lostReason);
    for (const id of [...this.#pending.keys()]) this.#take(id).reject(error());
    for (const [session, onEvent] of this.#sessions) {
      onEvent({ event: 'detached', session, reason: this.#lostReason });
    }
    this.#sessions.clear();
  }

  #take(id) {
    const entry = this.#pending.get(id);
    if (!entry) return undefined;
    this.#pending.delete(id);
    clearTimeout(entry.timer);
    if (this.#pending.size === 0) this.#socket.unref();
    return entry;
  }
}

function connect(socketPath) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(socketPath);
    socket.once('connect', () => resolve(socket));
    socket.once('error', (error) => {
      // No socket, or one that a killed keeper left behind.
      if (error.code === 'ENOENT' || error.code === 'ECONNREFUSED') resolve(null);
      else reject(new Error(`cannot connect to the browser keeper: ${error.message}`));
    });
  });
}
