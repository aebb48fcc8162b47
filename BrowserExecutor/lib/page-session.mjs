/** A script's DevTools session with one page. */

export class PageSession {
  #connection;
  #id;
  #listeners = new Map();
  #gone;

  /**
   * @param {import('./keeper-connection.mjs').KeeperConnection} connection
   * @param {string} id session id that the keeper gave to this connection
   */
  constructor(connection, id) {
    this.#connection = connection;
    this.#id = id;
    /** Rejects with the reason once the page is gone; never fulfils. @type {Promise<never>} */
    this.gone = new Promise((_, reject) => (this.#gone = reject));
    this.gone.catch(() => {}); // who waits for the page hears of it; nobody has to
    connection.listen(id, (event) => this.#receive(event));
  }

  /**
   * Sends one DevTools command to the page.
   * @param {string} method
   * @param {object} [params]
   * @param {{timeout?: number}} [options] as for KeeperConnection.request
   * @returns {Promise<object>} its result; rejects with DevTools' message
   */
  send(method, params = {}, options) {
    return this.#connection.request('send', { session: this.#id, method, params }, options);
  }

  /**
   * Calls back for each event of one kind.
   * @param {string} method DevTools event
   * @param {(params: object) => void} listener
   * @returns {() => void} ends it
   */
  on(method, listener) {
    const listeners = this.#listeners.get(method) ?? new Set();
    this.#listeners.set(method, listeners.add(listener));
    return () => listeners.delete(listener);
  }

  #receive({ event, method, params, reason }) {
    if (event === 'detached') {
      this.#gone(new Error(reason));
      return;
    }
    for (const listener of this.#listeners.get(method) ?? []) listener(params);
  }
}
