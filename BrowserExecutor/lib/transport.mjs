/** Carries the page library's DevTools messages over a connection to the keeper. */

export class KeeperTransport {
  #connection;

  /** Set by the library. @type {((message: string) => void) | undefined} */
  onmessage;

  /** Set by the library. @type {(() => void) | undefined} */
  onclose;

  /** @param {import('./keeper-connection.mjs').KeeperConnection} connection after "open" */
  constructor(connection) {
    this.#connection = connection;
    // Each message in a turn of its own: what one resolves has run before the next is looked at.
    connection.onDevTools = (message) => setImmediate(() => this.onmessage?.(message));
    connection.closed.then(() => this.onclose?.());
  }

  /** @param {string} message a command, JSON @throws {Error} when it is too large */
  send(message) {
    this.#connection.sendDevTools(message);
  }

  close() {
    this.#connection.close();
  }
}
