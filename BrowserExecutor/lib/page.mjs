/** The page object that scripts get from openTaskSpace. */

import { writeFile } from 'node:fs/promises';
import path from 'node:path';

import { atCallSite } from './call-site.mjs';
import { callExpression, evaluationResult } from './evaluation.mjs';
import { navigate } from './navigation.mjs';

const GOTO_TIMEOUT = 30_000;

export class Page {
  #session;
  #prepared = false;

  /** @param {import('./page-session.mjs').PageSession} session */
  constructor(session) {
    this.#session = session;
  }

  /**
   * Opens an address and waits until the document has loaded. The server's status is not judged:
   * an error page is a page.
   * @param {string} url absolute
   * @param {{timeout?: number}} [options] milliseconds, 30000 unless given
   * @returns {Promise<void>} rejects with the network's error or when the time is over
   */
  goto(url, { timeout = GOTO_TIMEOUT } = {}) {
    return atCallSite(this.goto, async () => {
      if (!parses(url)) throw new TypeError(`goto: '${url}' is not a URL`);
      if (!(timeout > 0)) throw new TypeError(`goto: timeout takes milliseconds, not ${timeout}`);
      await this.#prepare(timeout);
      await navigate(this.#session, `${url}`, timeout);
    });
  }

  /** @returns {Promise<string>} the document's title */
  title() {
    return atCallSite(this.title, () => this.#evaluate('document.title'));
  }

  /** @returns {Promise<string>} the document's text as a reader sees it */
  text() {
    const read = 'document.body ? document.body.innerText : document.documentElement?.textContent';
    return atCallSite(this.text, async () => (await this.#evaluate(read)) ?? '');
  }

  /** @returns {Promise<string>} the document's address, also while the page is busy */
  url() {
    return atCallSite(this.url, async () => {
      const history = await this.#session.send('Page.getNavigationHistory');
      // A fresh page's entry is empty until its about:blank is committed.
      return history.entries[history.currentIndex].url || 'about:blank';
    });
  }

  /**
   * Runs code in the page. Waits for as long as the code takes and the page is there.
   * @param {Function | string} code a function, which sees nothing of the script but its
   *   arguments, or an expression; a promise is awaited
   * @param {...unknown} args what the function is called with; JSON values
   * @returns {Promise<unknown>} its value, as JSON has it; rejects with the page's exception
   */
  evaluate(code, ...args) {
    return atCallSite(this.evaluate, () =>
      this.#evaluate(callExpression(code, args), { timeout: Infinity }),
    );
  }

  /**
   * Takes a picture of the visible part of the page.
   * @param {{path?: string}} [options] file to write, relative to the working directory
   * @returns {Promise<string | Buffer>} the file's absolute path, or the PNG when none is given
   */
  screenshot({ path: file } = {}) {
    return atCallSite(this.screenshot, async () => {
      const { data } = await this.#session.send('Page.captureScreenshot', { format: 'png' });
      const png = Buffer.from(data, 'base64');
      if (file === undefined) return png;
      const target = path.resolve(file);
      await writeFile(target, png);
      return target;
    });
  }

  async #evaluate(expression, options) {
    const evaluation = {
      expression,
      awaitPromise: true,
      returnByValue: true,
      generatePreview: true,
    };
    return evaluationResult(await this.#session.send('Runtime.evaluate', evaluation, options));
  }

  async #prepare(timeout) {
    if (this.#prepared) return;
    await this.#session.send('Page.enable', {}, { timeout });
    await this.#session.send('Page.setLifecycleEventsEnabled', { enabled: true }, { timeout });
    if (this.#prepared) return; // by a call that ran beside this one
    this.#prepared = true;
    // Once the Page domain is enabled the browser leaves dialogs to us. Nobody is there to read
    // them: they are dismissed, but a page's wish to hold us back is overruled.
    this.#session.on('Page.javascriptDialogOpening', ({ type }) => {
      const accept = type === 'beforeunload';
      this.#session.send('Page.handleJavaScriptDialog', { accept }).catch(() => {});
    });
  }
}

function parses(url) {
  try {
    return Boolean(new URL(url));
  } catch {
    return false;
  }
}
