/**
 * The table of task spaces: a name, and the browser context with its own cookies and pages that
 * stands behind it. Lives in the keeper, and with the browser.
 */

import { checkName } from './protocol.mjs';

const COMMAND_TIMEOUT = 20_000;

/**
 * @typedef {object} TaskSpaceInfo
 * @property {string} name
 * @property {string} createdAt ISO 8601, UTC
 * @property {boolean} completed whether it was completed with `keep`
 * @property {number} pages how many pages are open in it
 * @property {string} url   of its page, empty when it has none
 * @property {string} title of its page, empty when it has none
 */

export class TaskSpaces {
  #send;
  #spaces = new Map();
  #queues = new Map();

  /**
   * @param {() => import('./devtools-pipe.mjs').DevToolsPipe} pipe gives the browser's pipe; not
   *   called before the first operation
   */
  constructor(pipe) {
    this.#send = (method, params) => pipe().send(method, params, { timeout: COMMAND_TIMEOUT });
  }

  /** How many task spaces there are. */
  get size() {
    return this.#spaces.size;
  }

  /** @returns {Promise<TaskSpaceInfo[]>} in order of creation */
  async list() {
    if (this.size === 0) return [];
    // Asked each time: the browser announces a new address, but not a new title.
    const { targetInfos } = await this.#send('Target.getTargets', {});
    const pages = new Map(targetInfos.map((target) => [target.targetId, target]));
    return [...this.#spaces.values()].map((space) => {
      const page = pages.get(space.page);
      return {
        name: space.name,
        createdAt: space.createdAt,
        completed: space.completed,
        pages: space.pages.size,
        url: page?.url ?? '',
        title: page?.title ?? '',
      };
    });
  }

  /**
   * Creates the task space when it does not exist, and a page in it when it has none.
   * @param {unknown} name
   * @returns {Promise<{targetId: string, created: boolean}>} its page's DevTools target
   * @throws {Error} for a name that is none, or with the browser's message
   */
  open(name) {
    checkName(name);
    return this.#inTurn(name, async () => {
      const created = !this.#spaces.has(name);
      const space = this.#spaces.get(name) ?? (await this.#create(name));
      space.completed = false;
      const targetId = space.page ?? (await this.#createPage(space));
      return { targetId, created };
    });
  }

  /**
   * Ends the work on a task space: closes it with its pages, or marks it complete and leaves it.
   * @param {unknown} name
   * @param {boolean} keep
   * @returns {Promise<{found: boolean, closed: boolean}>} found is false for an unknown name
   */
  complete(name, keep) {
    checkName(name);
    return this.#inTurn(name, async () => {
      const space = this.#spaces.get(name);
      if (!space) return { found: false, closed: false };
      if (keep) {
        space.completed = true;
        return { found: true, closed: false };
      }
      await this.#send('Target.disposeBrowserContext', { browserContextId: space.contextId });
      this.#spaces.delete(name);
      return { found: true, closed: true };
    });
  }

  /** Follows the pages that come and go. @param {string} method @param {object} params */
  handleEvent(method, params) {
    if (method === 'Target.targetCreated') {
      const { browserContextId, type, targetId } = params.targetInfo;
      if (type === 'page') this.#spaceOfContext(browserContextId)?.pages.add(targetId);
    } else if (method === 'Target.targetDestroyed' || method === 'Target.targetCrashed') {
      this.forgetPage(params.targetId);
    }
  }

  /** Takes a page that is gone out of the table. @param {string} targetId */
  forgetPage(targetId) {
    for (const space of this.#spaces.values()) space.pages.delete(targetId);
  }

  async #create(name) {
    const { browserContextId } = await this.#send('Target.createBrowserContext', {});
    const space = new TaskSpace(name, browserContextId);
    this.#spaces.set(name, space);
    return space;
  }

  async #createPage(space) {
    // A window of its own: a page behind another tab would not be drawn.
    const { targetId } = await this.#send('Target.createTarget', {
      url: 'about:blank',
      browserContextId: space.contextId,
      newWindow: true,
    });
    return targetId;
  }

  #spaceOfContext(contextId) {
    for (const space of this.#spaces.values()) {
      if (space.contextId === contextId) return space;
    }
    return undefined;
  }

  // Operations on one name run one after the other; names do not wait for each other.
  #inTurn(name, operation) {
    const before = this.#queues.get(name) ?? Promise.resolve();
    const result = before.then(operation);
    const settled = result
      .catch(() => {})
      .then(() => {
        if (this.#queues.get(name) === settled) this.#queues.delete(name);
      });
    this.#queues.set(name, settled);
    return result;
  }
}

class TaskSpace {
  createdAt = new Date().toISOString();
  completed = false;
  /** DevTools target ids of its pages, in order of creation. */
  pages = new Set();

  constructor(name, contextId) {
    this.name = name;
    this.contextId = contextId;
  }

  /** The target id of the page that scripts get, the oldest one open; undefined without pages. */
  get page() {
    return this.pages.values().next().value;
  }
}
