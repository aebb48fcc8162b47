/** The files that the pages of a task space download. */

import fs from 'node:fs/promises';
import path from 'node:path';

const MAX_NAME_LENGTH = 120;

/** @typedef {{path: string, name: string, url: string}} Download */

export class Downloads {
  #page;
  #findDirectory;
  #directory;
  #session = null;
  #running = new Map(); // by the browser's id of each
  #waiting = [];

  /**
   * @param {object} options
   * @param {object} options.page any page of the task space
   * @param {() => Promise<string>} options.findDirectory gives where the files go; asked once
   */
  constructor({ page, findDirectory }) {
    this.#page = page;
    this.#findDirectory = findDirectory;
  }

  /** Allows downloads from now on: each gets the name that its site suggests. */
  async allow() {
    if (this.#session && !this.#session.detached) return;
    this.#directory ??= await this.#findDirectory();
    const session = await this.#page.createCDPSession();
    session.on('Browser.downloadWillBegin', (event) => this.#begin(event));
    session.on('Browser.downloadProgress', (event) => this.#progress(event));
    await session.send('Browser.setDownloadBehavior', {
      behavior: 'allowAndName',
      downloadPath: this.#directory,
      eventsEnabled: true,
    });
    this.#session = session;
  }

  /** @returns {Promise<Download>} the next download that begins; fulfils when its file is there */
  next() {
    return new Promise((resolve, reject) => this.#waiting.push({ resolve, reject }));
  }

  #begin({ guid, url, suggestedFilename }) {
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

  // A link, not a rename, since that would replace a file that has the name.
  async #place(source, name) {
    const { name: stem, ext } = path.parse(name);
    for (let i = 0; ; ++i) {
      const file = path.join(this.#directory, i === 0 ? name : `${stem} (${i})${ext}`);
      try {
        await fs.link(source, file);
        await fs.unlink(source);
        return file;
      } catch (error) {
        if (error.code !== 'EEXIST') throw error;
      }
    }
  }
}

/** The site chooses the name, but neither the place nor what a terminal makes of it. */
function safeName(suggested) {
  const base = path.basename(suggested.replace(/[\u0000-\u001f\u007f\\]/g, '_'));
  const { name, ext } = path.parse(base);
  if (/^\.*$/.test(base)) return 'download';
  return `${name.slice(0, MAX_NAME_LENGTH)}${ext.slice(0, MAX_NAME_LENGTH)}`;
}
