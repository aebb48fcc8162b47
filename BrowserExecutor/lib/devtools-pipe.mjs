/** Chromium's debugging pipe: DevTools messages as JSON, each ended by a NUL byte. */

import { FrameSplitter } from './frames.mjs';
import { MAX_DEVTOOLS_BYTES } from './protocol.mjs';

export class DevToolsPipe {
  #writable;
  #onEvent;
  #pending = new Map();
  #lastId = 0;
  #closed = null;

  /**
   * Takes ownership of both streams.
   * @param {import('node:stream').Writable} writable Chromium reads commands here (its fd 3)
   * @param {import('node:stream').Readable} readable Chromium writes replies here (its fd 4)
   * @param {(message: {method: string, params: object, sessionId?: string}) => void} onEvent
   */
  constructor(writable, readable, onEvent) {
    this.#writable = writable;
    this.#onEvent = onEvent;
    const splitter = new FrameSplitter({
      delimiter: 0,
      limit: MAX_DEVTOOLS_BYTES,
      onFrame: (frame) => this.#receive(JSON.parse(frame.toString('utf8'))),
      onOversize: (head) => this.#refuse(head),
    });
    readable.on('data', (chunk) => splitter.push(chunk));
    readable.on('close', () => this.close('the browser ended'));
    // A broken pipe is followed by the end of `readable`, which is where it is handled.
    readable.on('error', () => {});
    writable.on('error', () => {});
  }

  /**
   * Sends one command.
   * @param {string} method DevTools method
   * @param {object} [params]
   * @param {{sessionId?: string, timeout?: number}} [options] `timeout` in milliseconds; without
   *   one the command waits until it is answered, its session is dropped or the pipe closes
   * @returns {Promise<object>} its result; rejects with DevTools' error message
   */
  send(method, params = {}, { sessionId, timeout } = {}) {
    if (this.#closed) return Promise.reject(new Error(this.#closed));
    const id = ++this.#lastId;
    return new Promise((resolve, reject) => {
      const entry = { resolve, reject, sessionId, timer: undefined };
      if (timeout) {
        const late = () =>
          this.#take(id)?.reject(new Error(`${method}: no answer from the browser`));
        entry.timer = setTimeout(late, timeout);
      }
      this.#pending.set(id, entry);
      this.#writable.write(`${JSON.stringify({ id, method, params, sessionId })}\0`);
    });
  }

  /** Rejects what is pending on a session that no longer exists: DevTools would not answer. */
  dropSession(sessionId, reason) {
    for (const [id, entry] of this.#pending) {
      if (entry.sessionId === sessionId) this.#take(id).reject(new Error(reason));
    }
  }

  /**
   * Calls back once Chromium takes commands again.
   * @returns {boolean} false, without a call, when it is taking them now
   */
  waitForDrain(callback) {
    if (this.#closed || !this.#writable.writableNeedDrain) return false;
    this.#writable.once('drain', callback);
    return true;
  }

  /** Rejects everything pending and refuses what comes later. */
  close(reason) {
    this.#closed ??= reason;
    for (const id of [...this.#pending.keys()]) this.#take(id).reject(new Error(reason));
    this.#writable.destroy();
  }

  #receive(message) {
    if (message.id === undefined) {
      this.#onEvent(message);
      return;
    }
    const entry = this.#take(message.id);
    if (message.error) entry?.reject(new Error(message.error.message));
    else entry?.resolve(message.result);
  }

  // A reply starts with its id, so its command can be told even though the reply is skipped.
  #refuse(head) {
    const id = /^\{"id":(\d+)/.exec(head.toString('latin1'))?.[1];
    const megabytes = MAX_DEVTOOLS_BYTES / 1024 / 1024;
    this.#take(Number(id))?.reject(new Error(`the answer is larger than ${megabytes} MiB`));
  }

  #take(id) {
    const entry = this.#pending.get(id);
    if (!entry) return undefined;
    this.#pending.delete(id);
    clearTimeout(entry.timer);
    return entry;
  }
}
