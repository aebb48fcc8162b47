/**
 * Standard output and error, written at once. Node's own streams keep what a pipe does not take
 * yet, without limit, and lose it when the process exits.
 */

import fs from 'node:fs';
import { Writable } from 'node:stream';
import tty from 'node:tty';

/** A full pipe is tried again after 1 ms, then 2, 4 … */
const MAX_WAIT = 32;

/**
 * Replaces process.stdout and process.stderr, and with them what console writes to, unless they
 * are terminals. Call it before either was used. A write returns when the system has the bytes,
 * so that a slow reader slows the script down; when nobody reads them any more, the process exits
 * with status 1.
 */
export function makeOutputSynchronous() {
  for (const [name, fd] of Object.entries({ stdout: 1, stderr: 2 })) {
    if (tty.isatty(fd)) continue;
    const stream = new SynchronousStream(fd);
    Object.defineProperty(process, name, { configurable: true, enumerable: true, value: stream });
  }
}

class SynchronousStream extends Writable {
  _isStdio = true; // as node marks its own: pipe() does not end it

  constructor(fd) {
    super({ autoDestroy: false, decodeStrings: true });
    this.fd = fd;
  }

  _write(bytes, _encoding, done) {
    try {
      writeWhole(this.fd, bytes);
    } catch (error) {
      if (error.code === 'EPIPE' || error.code === 'ECONNRESET') process.exit(1);
      done(error);
      return;
    }
    done();
  }
}

function writeWhole(fd, bytes) {
  let wait = 1;
  for (let written = 0; written < bytes.length;) {
    try {
      written += fs.writeSync(fd, bytes, written);
      wait = 1;
    } catch (error) {
      // Whoever shares the pipe may have made it non-blocking.
      if (error.code !== 'EAGAIN') throw error;
      pause(wait);
      wait = Math.min(wait * 2, MAX_WAIT);
    }
  }
}

const neverWoken = new Int32Array(new SharedArrayBuffer(4));

function pause(milliseconds) {
  Atomics.wait(neverWoken, 0, 0, milliseconds);
}
