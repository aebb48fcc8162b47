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
  #prepare;
  #retire;
  #spaces = new Map();
  #queues = new Map();

  /**
   * @param {() => import('./devtools-pipe.mjs').DevToolsPipe} pipe gives the browser's pipe; not
   *   called before the first operation
   * @param {object} steps
   * @param {(space: TaskSpace) => Promise<void>} steps.prepare runs when a space is new
   * @param {(space: TaskSpace) => Promise<void>} steps.retire runs before one is closed
   */
  constructor(pipe, { prepare, retire }) {
    this.#prepare = prepare;
    this.#retire = retire;
    this.#send = (method, params) => pipe().send(method, params, { timeout: COMMAND_TIMEOUT });
  }

  /** How many task spaces there are. */
  get size() {
    return this.#spaces.size;
  }

  /** Their names, in order of creation. */
  get names() {
    return [...this.#spaces.keys()];
  }

  /** @param {string} name @returns {TaskSpace | undefined} */
  find(name) {
    return this.#spaces.get(name);
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
        pages: space.pages.length,
        url: page?.url ?? '',
        title: page?.title ?? '',
      };
    });
  }

  /**
   * Creates the task space when it does not exist, and a page in it when it has none.
   * @param {unknown} name
   * @param {(space: TaskSpace) => Promise<void>} [check] looks at the page of a space that was
   *   there before; it may forget the page, which is replaced then
   * @returns {Promise<{space: TaskSpace, targetId: string, created: boolean}>} targetId is its
   *   page's DevTools target
   * @throws {Error} for a name that is none, or with the browser's message
   */
  open(name, check = async () => {}) {
    checkName(name);
    return this.#inTurn(name, async () => {
      const created = !this.#spaces.has(name);
      const space = this.#spaces.get(name) ?? (await this.#create(name));
      space.completed = false;
      if (space.page) await check(space);
      const targetId = space.page ?? (await this.#createPage(space));
      return { space, targetId, created };
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
      await this.#retire(space);
      await this.#send('Target.disposeBrowserContext', { browserContextId: space.contextId });
      this.#spaces.delete(name);
      return { found: true, closed: true };
    });
  }

  /**
   * Follows the targets that come and go: pages, their frames of other sites, workers.
   * @param {string} method @param {object} params of a DevTools event
   * @returns {TaskSpace | undefined} the space that it concerns
   */
  handleEvent(method, params) {
    const { targetInfo, targetId = targetInfo?.targetId } = params;
    const space = this.#spaceOfContext(targetInfo?.browserContextId) ?? this.#spaceOf(targetId);
    const known = space?.targets.has(targetId);
    if (method === 'Target.targetCreated' || (targetInfo && known)) {
      space?.targets.set(targetId, targetInfo);
    } else if (method === 'Target.targetDestroyed' || method === 'Target.targetCrashed') {
      space?.targets.delete(targetId);
    }
    return space;
  }

  async #create(name) {
    const { browserContextId } = await this.#send('Target.createBrowserContext', {});
    const space = new TaskSpace(name, browserContextId);
    this.#spaces.set(name, space);
    await this.#prepare(space);
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
    return [...this.#spaces.values()].find((space) => space.contextId === contextId);
  }

  #spaceOf(targetId) {
    return [...this.#spaces.values()].find((space) => space.targets.has(targetId));
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

export class TaskSpace {
  createdAt = new Date().toISOString();
  completed = false;
  /** Whether a login is kept for it alone. */
  hasOwnLogin = false;
  /** What DevTools tells of each of its targets, by id, in order of creation. */
  targets = new Map();

  constructor(name, contextId) {
    this.name = name;
    this.contextId = contextId;
  }

  /** The target ids of its pages, in order of creation. */
  get pages() {
    const isPage = ({ type, subtype }) => type === 'page' && !subtype;
    return [...this.targets.values()].filter(isPage).map(({ targetId }) => targetId);
  }

  /** The target id of the page that scripts get, the oldest one open; undefined without pages. */
  get page() {
    return this.pages[0];
  }
}
