/** A DevTools session of our own with one target, through Chromium's pipe. */

const COMMAND_TIMEOUT = 10_000;

export class PipeSession {
  #pipe;
  #id;
  #listeners = new Map();

  /**
   * @param {import('./devtools-pipe.mjs').DevToolsPipe} pipe
   * @param {string} targetId
   * @returns {Promise<PipeSession>}
   */
  static async attach(pipe, targetId) {
    const attach = { targetId, flatten: true };
    const limit = { timeout: COMMAND_TIMEOUT };
    const { sessionId } = await pipe.send('Target.attachToTarget', attach, limit);
    return new PipeSession(pipe, sessionId);
  }

  /** @param {import('./devtools-pipe.mjs').DevToolsPipe} pipe @param {string} id of the session */
  constructor(pipe, id) {
    this.#pipe = pipe;
    this.#id = id;
    pipe.listen(id, (method, frame) => {
      const listeners = this.#listeners.get(method);
      if (!listeners) return;
      const { params } = JSON.parse(frame.text());
      for (const listener of listeners) listener(params);
    });
  }

  /** @param {string} method @param {object} [params] @returns {Promise<object>} the result */
  send(method, params = {}, { timeout = COMMAND_TIMEOUT } = {}) {
    return this.#pipe.send(method, params, { sessionId: this.#id, timeout });
  }

  /** Calls back for each event of one kind. */
  on(method, listener) {
    const listeners = this.#listeners.get(method) ?? new Set();
    this.#listeners.set(method, listeners.add(listener));
  }

  /** @returns {Promise<object>} the parameters of the next event of one kind */
  next(method, timeout) {
    return new Promise((resolve, reject) => {
      const late = () => reject(new Error(`${method}: not within ${timeout} ms`));
      const timer = setTimeout(late, timeout);
      this.on(method, (params) => {
        clearTimeout(timer);
        resolve(params);
      });
    });
  }
}
