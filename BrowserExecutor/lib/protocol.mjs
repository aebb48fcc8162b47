/**
 * The protocol between scripts and the keeper, on the keeper's Unix socket: one JSON object a
 * line, UTF-8, "\n" at the end.
 *
 * A client sends requests, which may overlap; each is answered once, in any order:
 *
 *   {"id": 7, "method": "open", "params": {"name": "a"}}
 *   {"id": 7, "result": {"session": "5F…", "created": true}}
 *   {"id": 7, "error": {"message": "…"}}
 *
 * | method   | params                  | result                                                 |
 * |----------|-------------------------|--------------------------------------------------------|
 * | hello    |                         | protocol: PROTOCOL_VERSION, pid                        |
 * | list     |                         | spaces: an array of TaskSpaceInfo (task-spaces.mjs)    |
 * | status   |                         | pid, browser (product and version), spaces (as list)   |
 * | open     | name                    | session: this client's DevTools session with the page  |
 * |          |                         | of the task space; created: whether the space is new   |
 * | complete | name, keep              | found, closed                                          |
 * | send     | session, method, params | the DevTools result; only sessions of this client      |
 * | stop     |                         | {} at once; the connection closes when all has ended   |
 *
 * The keeper also sends events:
 *
 *   {"event": "devtools", "session": S, "method": M, "params": {…}}   of a session of this client
 *   {"event": "detached", "session": S, "reason": R}                  the session is gone
 *   {"event": "ending", "reason": R}                                  the keeper is about to end
 *
 * A client's sessions end with its connection; task spaces stay. A line that is no request, or one
 * above the limit, closes the connection that sent it.
 */

export const PROTOCOL_VERSION = 1;

export const NEWLINE = 0x0a;

/** Largest request that the keeper takes; evaluate's code and arguments travel in one. */
export const MAX_REQUEST_BYTES = 64 * 1024 * 1024;

/** Largest message that the keeper takes from Chromium; screenshots and page text travel in one. */
export const MAX_DEVTOOLS_BYTES = 128 * 1024 * 1024;

/** Largest message that a client takes, and the most that the keeper buffers for a slow client. */
export const MAX_REPLY_BYTES = 2 * MAX_DEVTOOLS_BYTES;

/** Longest task-space name, in UTF-16 code units. */
const MAX_NAME_LENGTH = 1000;

/**
 * @param {object} message a request, reply or event
 * @returns {string} its line
 */
export function encode(message) {
  return `${JSON.stringify(message)}\n`;
}

/**
 * @param {Buffer} line one received line
 * @returns {object} the JSON object in it
 * @throws {Error} when it holds anything else
 */
export function decode(line) {
  const message = JSON.parse(line.toString('utf8'));
  if (message === null || typeof message !== 'object' || Array.isArray(message)) {
    throw new Error('not a JSON object');
  }
  return message;
}

/**
 * @param {unknown} name of a task space
 * @throws {TypeError} when it can be none
 */
export function checkName(name) {
  if (typeof name !== 'string' || name === '' || name.length > MAX_NAME_LENGTH) {
    throw new TypeError(`a task space's name is a text of 1 to ${MAX_NAME_LENGTH} characters`);
  }
}
