/** The keeper's log: what became of the browser, for whoever looks after the machine. */

import fs from 'node:fs';

const MAX_BYTES = 256 * 1024;

export class KeeperLog {
  #file;

  /** Goes on with the file, or begins it anew when it has grown. @param {string} file */
  constructor(file) {
    this.#file = file;
    try {
      if (fs.statSync(file).size > MAX_BYTES) fs.truncateSync(file);
    } catch {
      // There is none yet.
    }
  }

  /** Adds one line. A full disk costs the line, nothing else. @param {string} text */
  write(text) {
    const line = `${new Date().toISOString()} [${process.pid}] ${text.replaceAll('\n', ' | ')}\n`;
    try {
      fs.appendFileSync(this.#file, line, { mode: 0o600 });
    } catch {
      // Nobody can be told.
    }
  }
}
