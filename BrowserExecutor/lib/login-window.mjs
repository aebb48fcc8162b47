/** A visible browser in which a person logs in, watched for what is worth keeping. */

import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';

import { Chromium } from './chromium.mjs';
import { giveLogin, readCookies } from './login-transfer.mjs';
import { PipeSession } from './pipe-session.mjs';

const COOKIE_INTERVAL = 500;

export class LoginWindow {
  #chromium;
  #pages = new Set(); // the sessions of those open
  #cookies;
  #storage = new Map(); // of each origin: a Map of its items

  /**
   * Opens the window, with what was logged in to before, and waits until the person closes it.
   * @param {object} options
   * @param {NodeJS.ProcessEnv} options.env
   * @param {string} options.profile private directory for the browser's files; removed at the end
   * @param {import('./logins.mjs').Login} options.login
   * @param {AbortSignal} options.signal closes the window
   * @param {() => void} options.onReady called when the person may begin
   * @returns {Promise<import('./logins.mjs').Login>}
   * @throws {Error} when there is no Chromium with a window, or it does not start
   */
  static async show({ env, profile, login, signal, onReady }) {
    try {
      const window = new LoginWindow(env, profile, login);
      return await window.#run(login, signal, onReady);
    } finally {
      fs.rmSync(profile, { recursive: true, force: true, maxRetries: 10, retryDelay: 100 });
    }
  }

  constructor(env, profile, { cookies, storage }) {
    this.#cookies = cookies;
    for (const { origin, items } of storage) this.#storage.set(origin, new Map(items));
    this.#chromium = new Chromium({
      env,
      profile,
      visible: true,
      onEvent: ({ method, params: { sessionId, targetInfo } }) => {
        if (method === 'Target.detachedFromTarget') this.#pages.delete(sessionId);
        if (method !== 'Target.attachedToTarget') return;
        if (targetInfo.type === 'page') this.#pages.add(sessionId);
        this.#watchTarget(sessionId);
      },
    });
  }

  async #run(login, signal, onReady) {
    const { pipe, ended } = this.#chromium;
    signal.addEventListener('abort', () => this.#chromium.end());
    try {
      await this.#chromium.ready;
      await giveLogin(pipe, login);
      const attach = { autoAttach: true, waitForDebuggerOnStart: true, flatten: true };
      await pipe.send('Target.setAutoAttach', attach);
      onReady();
      await this.#watchCookies(ended);
    } catch (error) {
      throw signal.aborted ? new Error('it was interrupted: nothing has changed') : error;
    } finally {
      await this.#chromium.end();
    }
    const storage = [...this.#storage].map(([origin, items]) => ({ origin, items: [...items] }));
    return { cookies: this.#cookies, storage: storage.filter(({ items }) => items.length > 0) };
  }

  // Asked again and again: when the window is closed it is too late to ask.
  async #watchCookies(ended) {
    let open = true;
    ended.then(() => (open = false));
    while (open) {
      try {
        const cookies = await readCookies(this.#chromium.pipe);
        // Once its last window is closed, Chromium drops the cookies of its session.
        if (this.#pages.size > 0) this.#cookies = cookies;
      } catch {
        // It is just being closed.
      }
      await Promise.race([ended, sleep(COOKIE_INTERVAL)]);
    }
  }

  // Pages, their frames of other sites and pop-ups alike.
  #watchTarget(sessionId) {
    const session = new PipeSession(this.#chromium.pipe, sessionId);
    const items = ({ storageId: { storageKey, isLocalStorage } }) => {
      if (!isLocalStorage || !/^https?:\/\/[^^]+\/$/.test(storageKey)) return new Map();
      const origin = storageKey.slice(0, -1);
      if (!this.#storage.has(origin)) this.#storage.set(origin, new Map());
      return this.#storage.get(origin);
    };
    session.on('DOMStorage.domStorageItemAdded', (event) =>
      items(event).set(event.key, event.newValue),
    );
    session.on('DOMStorage.domStorageItemUpdated', (event) =>
      items(event).set(event.key, event.newValue),
    );
    session.on('DOMStorage.domStorageItemRemoved', (event) => items(event).delete(event.key));
    session.on('DOMStorage.domStorageItemsCleared', (event) => items(event).clear());
    session.on('Target.attachedToTarget', (event) => this.#watchTarget(event.sessionId));
    const attach = { autoAttach: true, waitForDebuggerOnStart: true, flatten: true };
    for (const [method, params] of [
      ['DOMStorage.enable', {}],
      ['Target.setAutoAttach', attach],
      ['Runtime.runIfWaitingForDebugger', {}],
    ]) {
      session.send(method, params).catch(() => {}); // a worker has no storage of this kind
    }
  }
}
