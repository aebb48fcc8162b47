/** Cuts a byte stream into delimited messages without ever holding more than a set limit. */

const HEAD_BYTES = 1024;

export class FrameSplitter {
  #delimiter;
  #limit;
  #onFrame;
  #onOversize;
  #chunks = [];
  #bytes = 0;
  #discarding = false;

  /**
   * @param {object} options
   * @param {number} options.delimiter byte that ends a message
   * @param {number} options.limit     largest message in bytes
   * @param {(frame: Buffer) => void} options.onFrame    one message, without its delimiter
   * @param {(head: Buffer) => void}  options.onOversize a message passed the limit; gets its first
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
    if (this.#discarding) return;
    this.#chunks.push(piece);
    this.#bytes += piece.length;
    if (this.#bytes <= this.#limit) return;
    const head = Buffer.concat(this.#chunks, Math.min(this.#bytes, HEAD_BYTES));
    this.#chunks = [];
    this.#discarding = true;
    this.#onOversize(head);
  }

  #finish() {
    const frame = this.#discarding ? null : Buffer.concat(this.#chunks, this.#bytes);
    this.#chunks = [];
    this.#bytes = 0;
    this.#discarding = false;
    if (frame) this.#onFrame(frame);
  }
}
