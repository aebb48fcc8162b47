/**
 * The protocol between scripts and the keeper, on the keeper's Unix socket: one message a line,
 * UTF-8, "\n" at the end.
 *
 * A client sends requests, JSON objects, which may overlap; each is answered once, in any order:
 *
 *   {"id": 7, "method": "open", "params": {"name": "a"}}
 *   {"id": 7, "result": {"page": "5F…", "created": true}}
 *   {"id": 7, "error": {"message": "…"}}
 *
 * | method    | params     | result                                                               |
 * |-----------|------------|----------------------------------------------------------------------|
 * | hello     |            | protocol: PROTOCOL_VERSION, pid, version: of the program             |
 * | list      |            | spaces: an array of TaskSpaceInfo (task-spaces.mjs)                  |
 * | status    |            | pid, browser (product and version), spaces (as list)                 |
 * | complete  | name, keep | found, closed                                                        |
 * | stop      |            | {} at once; the connection closes when all has ended                 |
 * | open      | name       | page: the DevTools target of the page of the task space; created:    |
 * |           |            | whether the space is new; notes: what its owner has to know, texts   |
 * | downloads |            | directory: for this client's downloads, which ends with it           |
 * | renew     | name       | found; an open task space gets the login that is kept for it         |
 *
 * hello, list, status, complete and stop have been the same in every version, so that a program can
 * look after a keeper of another one; only the first ones told no version.
 *
 * After "open" the connection is a DevTools connection, too, to a browser that has the pages of
 * that task space and nothing else (space-browser.mjs). Its messages, either way, are DevTools'
 * own, with DEVTOOLS_MARK in front:
 *
 *   #{"id": 1, "method": "Target.setAutoAttach", "params": {…}}
 *
 * The keeper also sends an event, its last words:
 *
 *   {"event": "ending", "reason": R, "lost": names of the task spaces that end with it}
 *
 * A client's sessions end with its connection; task spaces stay. A line that is no message, or one
 * above the limit, closes the connection that sent it.
 */

export const PROTOCOL_VERSION = 2;

/** What stands before a DevTools message on its line. */
export const DEVTOOLS_MARK = '#';

export const NEWLINE = 0x0a;

/** Largest message that the keeper takes; the code and arguments of evaluate travel in one. */
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
 * @param {string} line one received line
 * @returns {object} the JSON object in it
 * @throws {Error} when it holds anything else
 */
export function decode(line) {
  const message = JSON.parse(line);
  if (message === null || typeof message !== 'object' || Array.isArray(message)) {
    throw new Error('not a JSON object');
  }
  return message;
}

/**
 * Reads a client's request or DevTools command.
 * @param {string} line as received, without DEVTOOLS_MARK
 * @returns {{id: number, method: string, params: object, sessionId?: string} | null} null for
 *   anything else
 */
export function readRequest(line) {
  try {
    const { id, method, params: given, sessionId } = decode(line);
    const params = given ?? {};
    const valid =
      Number.isSafeInteger(id) &&
      typeof method === 'string' &&
      typeof params === 'object' &&
      (sessionId === undefined || typeof sessionId === 'string');
    return valid ? { id, method, params, sessionId } : null;
  } catch {
    return null; // not JSON
  }
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
