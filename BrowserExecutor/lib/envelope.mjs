/**
 * The outside of a DevTools message: whose it is, without looking at what it carries. Chromium
 * writes `{"id":7,"result":…,"sessionId":"5F…"}` and `{"method":"A.b","params":…,"sessionId":"5F…"}`,
 * so that both ends of a message tell.
 */

/** More than an id or a method and a session id take, with the quotes around them. */
const EDGE_BYTES = 160;

const ID = /^\{"id":(\d+),/;
const METHOD = /^\{"method":"([\w.]+)"/;
const SESSION = /"sessionId":"([\w-]+)"\}$/;

/**
 * @param {import('./frames.mjs').Frame} frame a message of Chromium's
 * @returns {{id?: number, method?: string, sessionId?: string}}
 * @throws {SyntaxError} when it is no JSON
 */
export function readEnvelope(frame) {
  const head = frame.head(EDGE_BYTES);
  const id = ID.exec(head)?.[1];
  const method = METHOD.exec(head)?.[1];
  if (id === undefined && method === undefined) return JSON.parse(frame.text());
  const sessionId = SESSION.exec(frame.tail(EDGE_BYTES))?.[1];
  return { id: id === undefined ? undefined : Number(id), method, sessionId };
}

/**
 * A reply with the id that its asker knows it by.
 * @param {import('./frames.mjs').Frame} frame a reply
 * @param {number} id
 * @returns {Buffer[]} its pieces
 */
export function withId(frame, id) {
  const ours = ID.exec(frame.head(EDGE_BYTES));
  if (!ours) return [Buffer.from(JSON.stringify({ ...JSON.parse(frame.text()), id }))];
  return [Buffer.from(`{"id":${id},`), ...frame.after(ours[0].length)];
}

/**
 * @param {number} id of the command that failed
 * @param {string} message
 * @param {string} [sessionId]
 * @returns {string} a reply as Chromium would write it
 */
export function errorReply(id, message, sessionId) {
  return JSON.stringify({ id, error: { code: -32000, message }, sessionId });
}
