/** The files that the pages of a task space download. */

import fs from 'node:fs/promises';
import path from 'node:path';

/** Of a name and of its extension; file systems take 255 of both, and there may be a number, too. */
const MAX_NAME_BYTES = 120;

/** @typedef {{path: string, name: string, url: string}} Download */

export class Downloads {
  #browser;
  #findDirectory;
  #directory;
  #allowed;
  #running = new Map(); // by the browser's id of each
  #waiting = [];

  /**
   * @param {object} options
   * @param {object} options.browser the DevTools connection
   * @param {() => Promise<string>} options.findDirectory gives where the files go; asked once
   */
  constructor({ browser, findDirectory }) {
    this.#browser = browser;
    this.#findDirectory = findDirectory;
  }

  /** Allows downloads from now on: each gets the name that its site suggests. */
  allow() {
    return (this.#allowed ??= this.#allow());
  }

  /**
   * @param {AbortSignal} givenUp who asks does not wait any more: the download is for the next
   * @returns {Promise<Download>} the next download that begins; fulfils when its file is there
   */
  next(givenUp) {
    return new Promise((resolve, reject) => this.#waiting.push({ resolve, reject, givenUp }));
  }

  async #allow() {
    this.#directory = await this.#findDirectory();
    this.#browser.on('Browser.downloadWillBegin', (event) => this.#begin(event));
    this.#browser.on('Browser.downloadProgress', (event) => this.#progress(event));
    await this.#browser.send('Browser.setDownloadBehavior', {
      behavior: 'allowAndName',
      downloadPath: this.#directory,
      eventsEnabled: true,
    });
  }

  #begin({ guid, url, suggestedFilename }) {
    this.#waiting = this.#waiting.filter(({ givenUp }) => !givenUp.aborted);
    const waiter = this.#waiting.shift();
    this.#running.set(guid, { url, name: safeName(suggestedFilename), waiter });
  }

  #progress({ guid, state }) {
    const download = this.#running.get(guid);
    if (!download || state === 'inProgress') return;
    this.#running.delete(guid);
    if (state === 'completed') this.#finish(guid, download);
    else download.waiter?.reject(new Error(`the download of ${download.name} was canceled`));
  }

  async #finish(guid, { url, name, waiter }) {
    try {
      const file = await this.#place(path.join(this.#directory, guid), name);
      waiter?.resolve({ path: file, name, url });
    } catch (error) {
      waiter?.reject(error);
    }
  }

  // The name is taken first, since a rename replaces a file that has it. Not all file systems have
  // links.
  async #place(source, name) {
    const { name: stem, ext } = path.parse(name);
    for (let i = 0; ; ++i) {
      const file = path.join(this.#directory, i === 0 ? name : `${stem} (${i})${ext}`);
      try {
        await (await fs.open(file, 'wx')).close();
      } catch (error) {
        if (error.code === 'EEXIST') continue;
        throw error;
      }
      await fs.rename(source, file).catch(async (error) => {
        await fs.unlink(file);
        throw error;
      });
      return file;
    }
  }
}

/** The site chooses the name, but neither the place nor what a terminal makes of it. */
function safeName(suggested) {
  const base = path.basename(suggested.replace(/[\u0000-\u001f\u007f-\u009f\\]/g, '_'));
  const { name, ext } = path.parse(base);
  if (/^\.*$/.test(base)) return 'download';
  return `${cut(name)}${cut(ext)}`;
}

function cut(text) {
  const { read } = new TextEncoder().encodeInto(text, new Uint8Array(MAX_NAME_BYTES));
  return text.slice(0, read);
}
