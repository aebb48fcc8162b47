/** Tells a browser that hangs from one that is busy: it is asked again and again, while it matters. */

import { setTimeout as sleep } from 'node:timers/promises';

const PING_INTERVAL = 2_000;

/** How long a browser may take to tell its version, which none needs that works at all. */
export const SILENCE_LIMIT = 5_000;

/** How late a timer of ours may be before it is this process that was held up. */
const OWN_DELAY = 1_000;

export class BrowserWatch {
  #ping;
  #isNeeded;
  #onSilence;
  #running = false;

  /**
   * @param {object} options
   * @param {() => Promise<unknown>} options.ping asks the browser; fulfils with its answer
   * @param {() => boolean} options.isNeeded whether anybody would notice
   * @param {() => void} options.onSilence called once when an answer has not come in time
   */
  constructor({ ping, isNeeded, onSilence }) {
    this.#ping = ping;
    this.#isNeeded = isNeeded;
    this.#onSilence = onSilence;
  }

  /** Begins to watch, until nobody needs it. Does nothing while it is watching. */
  async start() {
    if (this.#running) return;
    this.#running = true;
    while (this.#isNeeded()) {
      if (!(await this.#answers())) {
        this.#onSilence();
        break;
      }
      await sleep(PING_INTERVAL);
    }
    this.#running = false;
  }

  async #answers() {
    const answer = this.#ping().then(
      () => true,
      () => true,
    ); // a refusal is an answer
    for (;;) {
      const due = Date.now() + SILENCE_LIMIT;
      const done = new AbortController();
      const late = sleep(SILENCE_LIMIT, false, { signal: done.signal }).catch(() => false);
      const answered = await Promise.race([answer, late]);
      done.abort();
      if (answered) return true;
      if (Date.now() - due < OWN_DELAY) return false;
    }
  }
}
