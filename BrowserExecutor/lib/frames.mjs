/** Cuts a byte stream into delimited messages without ever holding more than a set limit. */

const HEAD_BYTES = 1024;

/** One message, as the pieces in which it arrived: a large one is passed on without a copy. */
export class Frame {
  /**
   * @param {Buffer[]} pieces
   * @param {number} bytes of all pieces together
   */
  constructor(pieces, bytes) {
    this.pieces = pieces;
    this.bytes = bytes;
  }

  /** @param {number} count @returns {string} the first bytes, as Latin-1 text */
  head(count) {
    const pieces = [];
    for (let i = 0, missing = count; i < this.pieces.length && missing > 0; ++i) {
      pieces.push(this.pieces[i].subarray(0, missing));
      missing -= pieces[i].length;
    }
    return Buffer.concat(pieces).toString('latin1');
  }

  /** @param {number} count @returns {string} the last bytes, as Latin-1 text */
  tail(count) {
    const pieces = [];
    for (let i = this.pieces.length - 1, missing = count; i >= 0 && missing > 0; --i) {
      pieces.unshift(this.pieces[i].subarray(-missing));
      missing -= pieces[0].length;
    }
    return Buffer.concat(pieces).toString('latin1');
  }

  /** @returns {string} all of it, as UTF-8 text */
  text() {
    const whole = this.pieces.length === 1 ? this.pieces[0] : Buffer.concat(this.pieces);
    return whole.toString('utf8');
  }

  /** @param {number} count @returns {Buffer[]} its pieces without the first bytes */
  after(count) {
    const rest = [];
    let skip = count;
    for (const piece of this.pieces) {
      if (skip < piece.length) rest.push(piece.subarray(skip));
      skip = Math.max(0, skip - piece.length);
    }
    return rest;
  }
}

export class FrameSplitter {
  #delimiter;
  #limit;
  #onFrame;
  #onOversize;
  #pieces = [];
  #bytes = 0;
  #discarding = false;

  /**
   * @param {object} options
   * @param {number} options.delimiter byte that ends a message
   * @param {number} options.limit     largest message in bytes
   * @param {(frame: Frame) => void} options.onFrame    one message, without its delimiter
   * @param {(head: Buffer) => void} options.onOversize a message passed the limit; gets its first
   *   bytes. The rest of that message is skipped.
   */
  constructor({ delimiter, limit, onFrame, onOversize }) {
    this.#delimiter = delimiter;
    this.#limit = limit;
    this.#onFrame = onFrame;
    this.#onOversize = onOversize;
  }

  /** @param {Buffer} chunk the next bytes of the stream; calls back for each message completed */
  push(chunk) {
    let start = 0;
    for (;;) {
      const end = chunk.indexOf(this.#delimiter, start);
      if (end < 0) break;
      this.#hold(chunk.subarray(start, end));
      this.#finish();
      start = end + 1;
    }
    if (start < chunk.length) this.#hold(chunk.subarray(start));
  }

  #hold(piece) {
    if (this.#discarding || piece.length === 0) return;
    this.#pieces.push(piece);
    this.#bytes += piece.length;
    if (this.#bytes <= this.#limit) return;
    const head = Buffer.concat(this.#pieces, Math.min(this.#bytes, HEAD_BYTES));
    this.#pieces = [];
    this.#discarding = true;
    this.#onOversize(head);
  }

  #finish() {
    const frame = this.#discarding ? null : new Frame(this.#pieces, this.#bytes);
    this.#pieces = [];
    this.#bytes = 0;
    this.#discarding = false;
    if (frame) this.#onFrame(frame);
  }
}
