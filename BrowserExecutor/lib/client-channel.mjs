/** The keeper's end of one client connection: framing, limits and replies. */

import { FrameSplitter } from './frames.mjs';
import {
  DEVTOOLS_MARK,
  MAX_REPLY_BYTES,
  MAX_REQUEST_BYTES,
  NEWLINE,
  encode,
  readRequest,
} from './protocol.mjs';

/** Requests that a client may have open before the keeper stops reading from it. */
const MAX_OPEN_REQUESTS = 64;

export class ClientChannel {
  #socket;
  #handle;
  #onCommand;
  #open = 0;

  /**
   * Takes ownership of the socket.
   * @param {import('node:net').Socket} socket
   * @param {object} handlers
   * @param {(method: string, params: object) => Promise<object>}
   *   handlers.onRequest gives the result, or rejects with the message to send
   * @param {(command: object) => void} handlers.onCommand gets the client's DevTools commands
   * @param {() => void} handlers.onClose the client is gone
   */
  constructor(socket, { onRequest, onCommand, onClose }) {
    this.#socket = socket;
    this.#handle = onRequest;
    this.#onCommand = onCommand;
    const splitter = new FrameSplitter({
      delimiter: NEWLINE,
      limit: MAX_REQUEST_BYTES,
      onFrame: (line) => this.#receive(line.text()),
      onOversize: () => socket.destroy(),
    });
    socket.on('data', (chunk) => splitter.push(chunk));
    socket.on('error', () => {}); // 'close' follows
    socket.on('close', () => onClose());
  }

  /** Whether the client is gone. */
  get closed() {
    return this.#socket.destroyed;
  }

  /** Sends a DevTools message to the client. @param {Buffer[]} pieces of it */
  relay(pieces) {
    if (!this.#socket.writable) return;
    this.#socket.cork();
    this.#socket.write(DEVTOOLS_MARK);
    for (const piece of pieces) this.#socket.write(piece);
    this.#socket.write('\n');
    this.#socket.uncork();
    this.#limitBacklog();
  }

  /** Stops reading requests until `resume`. */
  pause() {
    this.#socket.pause();
  }

  resume() {
    if (this.#open < MAX_OPEN_REQUESTS) this.#socket.resume();
  }

  /** Sends a last event and closes once it is written. @returns {Promise<void>} */
  end(event) {
    return new Promise((resolve) => {
      this.#socket.once('close', () => resolve());
      if (this.#socket.destroyed) resolve();
      else this.#socket.end(encode(event));
    });
  }

  #receive(line) {
    if (this.#socket.destroyed) return;
    if (line.startsWith(DEVTOOLS_MARK)) {
      this.#receiveCommand(line.slice(1));
      return;
    }
    const request = readRequest(line);
    if (!request) {
      this.#socket.destroy();
      return;
    }
    if (++this.#open >= MAX_OPEN_REQUESTS) this.pause();
    this.#answer(request);
  }

  #receiveCommand(json) {
    const command = readRequest(json);
    if (command) this.#onCommand(command);
    else this.#socket.destroy();
  }

  async #answer({ id, method, params }) {
    try {
      this.#write({ id, result: await this.#handle(method, params) });
    } catch (error) {
      this.#write({ id, error: { message: error.message } });
    }
    if (--this.#open === MAX_OPEN_REQUESTS - 1) this.resume();
  }

  #write(message) {
    if (!this.#socket.writable) return;
    this.#socket.write(encode(message));
    this.#limitBacklog();
  }

  #limitBacklog() {
    if (this.#socket.writableLength > MAX_REPLY_BYTES) this.#socket.destroy();
  }
}
