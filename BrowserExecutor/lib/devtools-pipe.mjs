/** Chromium's debugging pipe: DevTools messages as JSON, each ended by a NUL byte. */

import { errorReply, readEnvelope, withId } from './envelope.mjs';
import { FrameSplitter } from './frames.mjs';
import { MAX_DEVTOOLS_BYTES } from './protocol.mjs';

/** Why a command of ours was given up: nothing came back in time. */
export class SilentBrowserError extends Error {}

export class DevToolsPipe {
  #writable;
  #onEvent;
  #pending = new Map();
  #listeners = new Map();
  #lastId = 0;
  #closed = null;

  /**
   * Takes ownership of both streams.
   * @param {import('node:stream').Writable} writable Chromium reads commands here (its fd 3)
   * @param {import('node:stream').Readable} readable Chromium writes replies here (its fd 4)
   * @param {(message: {method: string, params: object}) => void} onEvent gets the events of no
   *   session
   */
  constructor(writable, readable, onEvent) {
    this.#writable = writable;
    this.#onEvent = onEvent;
    const splitter = new FrameSplitter({
      delimiter: 0,
      limit: MAX_DEVTOOLS_BYTES,
      onFrame: (frame) => this.#receive(frame),
      onOversize: (head) => this.#refuse(head),
    });
    readable.on('data', (chunk) => splitter.push(chunk));
    readable.on('close', () => this.close('the browser ended'));
    // A broken pipe is followed by the end of `readable`, which is where it is handled.
    readable.on('error', () => {});
    writable.on('error', () => {});
  }

  /**
   * Sends one command of the keeper's own.
   * @param {string} method DevTools method
   * @param {object} [params]
   * @param {{sessionId?: string, timeout?: number}} [options] `timeout` in milliseconds; without
   *   one the command waits until it is answered, its session is dropped or the pipe closes
   * @returns {Promise<object>} its result; rejects with DevTools' error message, or with a
   *   SilentBrowserError
   */
  send(method, params = {}, { sessionId, timeout } = {}) {
    if (this.#closed) return Promise.reject(new Error(this.#closed));
    return new Promise((resolve, reject) => {
      const entry = { resolve, reject, sessionId, timer: undefined };
      const id = this.#write(entry, { method, params, sessionId });
      if (!timeout) return;
      const late = () => {
        const error = new SilentBrowserError(`${method}: no answer from the browser`);
        this.#take(id)?.reject(error);
      };
      entry.timer = setTimeout(late, timeout);
    });
  }

  /**
   * Sends one command of a client's. Its reply is passed on as it came, but with the client's id;
   * none comes when its session is dropped or the pipe closes.
   * @param {{id: number, method: string, params?: object, sessionId?: string}} message
   * @param {(pieces: Buffer[]) => void} onReply
   */
  forward({ id, method, params, sessionId }, onReply) {
    if (this.#closed) return;
    this.#write({ onReply, clientId: id, sessionId }, { method, params, sessionId });
  }

  /**
   * Has the events of one session delivered, until the session is dropped.
   * @param {string} sessionId
   * @param {(method: string, frame: import('./frames.mjs').Frame) => void} onEvent
   */
  listen(sessionId, onEvent) {
    this.#listeners.set(sessionId, onEvent);
  }

  /** Ends what is pending on a session that no longer exists: DevTools would not answer. */
  dropSession(sessionId, reason) {
    this.#listeners.delete(sessionId);
    for (const [id, entry] of this.#pending) {
      if (entry.sessionId === sessionId) this.#take(id).reject?.(new Error(reason));
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
    for (const id of [...this.#pending.keys()]) this.#take(id).reject?.(new Error(reason));
    this.#listeners.clear();
    this.#writable.destroy();
  }

  #write(entry, command) {
    const id = ++this.#lastId;
    this.#pending.set(id, entry);
    this.#writable.write(`${JSON.stringify({ id, ...command })}\0`);
    return id;
  }

  #receive(frame) {
    const { id, method, sessionId } = readEnvelope(frame);
    if (id !== undefined) this.#answer(this.#take(id), frame);
    else if (sessionId !== undefined) this.#listeners.get(sessionId)?.(method, frame);
    else this.#onEvent(JSON.parse(frame.text()));
  }

  #answer(entry, frame) {
    if (!entry) return; // given up meanwhile
    if (entry.onReply) {
      entry.onReply(withId(frame, entry.clientId));
      return;
    }
    const { error, result } = JSON.parse(frame.text());
    if (error) entry.reject(new Error(error.message));
    else entry.resolve(result);
  }

  // A reply starts with its id, so its command can be told even though the reply is skipped.
  #refuse(head) {
    const id = /^\{"id":(\d+)/.exec(head.toString('latin1'))?.[1];
    const entry = this.#take(Number(id));
    const message = `the answer is larger than ${MAX_DEVTOOLS_BYTES / 1024 / 1024} MiB`;
    entry?.reject?.(new Error(message));
    entry?.onReply?.([Buffer.from(errorReply(entry.clientId, message, entry.sessionId))]);
  }

  #take(id) {
    const entry = this.#pending.get(id);
    if (!entry) return undefined;
    this.#pending.delete(id);
    clearTimeout(entry.timer);
    return entry;
  }
}
