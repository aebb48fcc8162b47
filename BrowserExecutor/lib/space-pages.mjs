/** The pages of an open task space, as a script has them. */

import { asScript, endOfCall, limitCalls, registerPage } from './call-limits.mjs';
import { Downloads } from './downloads.mjs';
import { Page, TimeoutError, connect } from './page-library.mjs';
import { checkNames } from './space-options.mjs';
import { KeeperTransport } from './transport.mjs';

/** The space of each connection. @type {WeakMap<import('puppeteer-core').Browser, SpacePages>} */
const spaces = new WeakMap();

Object.assign(Page.prototype, {
  /** @returns {Promise<string>} the document's text as a reader sees it */
  text() {
    return this.evaluate(() => {
      const { body, documentElement } = globalThis.document;
      return (body ? body.innerText : documentElement?.textContent) ?? '';
    });
  },

  /** @returns {Promise<Page[]>} the pages of the task space, in order of creation */
  pages() {
    return this.browser().pages();
  },

  /**
   * @param {() => unknown} action makes this page open another
   * @param {{timeout?: number}} [options]
   * @returns {Promise<Page>}
   */
  waitForPopup(action, options = {}) {
    checkNames('waitForPopup', options, ['timeout']);
    const opened = new Promise((resolve) => this.once('popup', resolve));
    return alongside(action, opened);
  },

  /**
   * @param {() => unknown} action begins a download
   * @param {{timeout?: number}} [options]
   * @returns {Promise<import('./downloads.mjs').Download>} when the file is there
   */
  async waitForDownload(action, options = {}) {
    checkNames('waitForDownload', options, ['timeout']);
    const { downloads } = spaces.get(this.browser());
    await downloads.allow();
    const begin = async () => {
      try {
        await action();
      } catch (error) {
        // A navigation ends so when what it finds is a download.
        if (!/net::ERR_ABORTED/.test(error?.message)) throw error;
      }
    };
    return alongside(begin, downloads.next(endOfCall()));
  },
});

limitCalls((page) => spaces.get(page.browser())?.prepare(page));

/** What an action brings about, or the action's own error. */
async function alongside(action, outcome) {
  outcome.catch(() => {}); // the action's error comes first
  await asScript(action);
  return outcome;
}

export class SpacePages {
  #options;
  #tell;
  #lossOf;
  #prepared = new WeakMap();

  /** @type {Downloads} */
  downloads;

  /**
   * Takes over a connection to the keeper that has just opened a task space.
   * @param {object} options
   * @param {import('./keeper-connection.mjs').KeeperConnection} options.connection
   * @param {string} options.page the page's target, as the keeper tells it
   * @param {import('./space-options.mjs').SpaceOptions} options.options
   * @param {(text: string) => void} options.tell gets what the script's owner has to know
   * @returns {Promise<Page>} the page, ready for use
   */
  static async open({ connection, page: targetId, options, tell }) {
    const browser = await connect({
      transport: new KeeperTransport(connection),
      defaultViewport: options.viewport ?? null,
      protocolTimeout: 0, // calls have limits of their own
    });
    const lossOf = () => (connection.usable ? null : connection.lostError().message);
    const space = new SpacePages(options, tell, lossOf);
    const isOurs = (target) => target._targetId === targetId;
    const target = await browser.waitForTarget(isOurs);
    const page = await target.page().catch((error) => {
      if (!(error instanceof TimeoutError)) throw error;
      // The keeper replaces a page that hangs, unless it is in use.
      throw new TimeoutError(
        `openTaskSpace: ${target.url()} does not answer, another script keeps it busy`,
      );
    });
    spaces.set(browser, space);
    space.downloads = new Downloads({
      browser: page._client().connection(),
      findDirectory: async () =>
        options.downloads ?? (await connection.request('downloads')).directory,
    });
    await space.prepare(page);
    // What gives a page prepares it, which needs nothing when it is gone again.
    browser.on('targetcreated', (target) => target.page().catch(() => {}));
    if (options.downloads) await space.downloads.allow();
    return page;
  }

  constructor(options, tell, lossOf) {
    this.#options = options;
    this.#tell = tell;
    this.#lossOf = lossOf;
  }

  /** Gives a page what the options say. @param {Page} page @returns {Promise<void>} */
  prepare(page) {
    if (!this.#prepared.has(page)) this.#prepared.set(page, this.#prepareOnce(page));
    return this.#prepared.get(page);
  }

  async #prepareOnce(page) {
    registerPage(page, this.#lossOf);
    page.on('dialog', (dialog) => this.#dismiss(page, dialog));
    const { userAgent, locale, timezone } = this.#options;
    if (timezone) await page.emulateTimezone(timezone);
    if (!userAgent && !locale) return;
    const session = await page.createCDPSession();
    if (locale) await session.send('Emulation.setLocaleOverride', { locale });
    await session.send('Emulation.setUserAgentOverride', {
      userAgent: userAgent ?? (await page.browser().userAgent()),
      acceptLanguage: locale,
    });
  }

  // Nobody is there to read a dialog, unless the script listens for it; a page's wish to hold us
  // back is overruled.
  #dismiss(page, dialog) {
    if (page.listenerCount('dialog') > 1) return;
    if (dialog.type() === 'beforeunload') {
      dialog.accept().catch(() => {});
      return;
    }
    const text = JSON.stringify(dialog.message().slice(0, 500));
    this.#tell(`dismissed the ${dialog.type()} ${text} on ${page.url()}`);
    dialog.dismiss().catch(() => {});
  }
}
