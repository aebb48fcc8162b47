/**
 * The browser as one client sees it: the pages of its task space and nothing else. Commands and
 * events are DevTools' own; the few that concern the browser itself are answered here.
 */

import { permittedParams } from './command-rules.mjs';
import { errorReply } from './envelope.mjs';

const COMMAND_TIMEOUT = 20_000;
const FRAMES_TIMEOUT = 1_000;

export class SpaceBrowser {
  #pipe;
  #channel;
  #space;
  #sessions = new Map(); // id of each session of this client → the id of its parent, if any
  #discovering = false;
  #attaching = false;
  #downloads = null; // the session of ours that hears of them, to come

  /**
   * @param {object} options
   * @param {import('./devtools-pipe.mjs').DevToolsPipe} options.pipe
   * @param {import('./client-channel.mjs').ClientChannel} options.channel
   * @param {import('./task-spaces.mjs').TaskSpace} options.space
   */
  constructor({ pipe, channel, space }) {
    this.#pipe = pipe;
    this.#channel = channel;
    this.#space = space;
  }

  /** The task space that it shows. */
  get space() {
    return this.#space;
  }

  /**
   * Takes one command of the client.
   * @param {{id: number, method: string, params?: object, sessionId?: string}} message
   */
  receive(message) {
    const { id, method, sessionId } = message;
    if (sessionId !== undefined && !this.#sessions.has(sessionId)) {
      this.#refuse(message, 'the page is no longer open');
      return;
    }
    const answer = sessionId === undefined ? this.#answers[method] : undefined;
    if (answer) {
      this.#answer(message, answer);
      return;
    }
    try {
      this.#forward({ id, method, params: this.#permitted(message), sessionId });
    } catch (error) {
      this.#refuse(message, error.message);
    }
  }

  /** Hears of each target of the space. @param {string} method @param {object} params */
  handleTargetEvent(method, params) {
    if (this.#discovering) this.#notify(method, params);
    if (method === 'Target.targetCreated' && this.#attaching) this.#attachTo(params.targetInfo);
  }

  /** Gives up all sessions: the client is gone. */
  release() {
    this.#attaching = false;
    for (const [sessionId, parent] of this.#sessions) {
      this.#pipe.dropSession(sessionId, 'the client is gone');
      if (parent === undefined) this.#detach(sessionId);
    }
    this.#sessions.clear();
    this.#downloads
      ?.then((sessionId) => {
        this.#pipe.dropSession(sessionId, 'the client is gone');
        this.#detach(sessionId);
      })
      .catch(() => {});
  }

  /** Hears that the browser ended a session. @param {{sessionId: string}} params */
  handleDetached(params) {
    if (!this.#sessions.has(params.sessionId)) return;
    this.#drop(params.sessionId);
    this.#notify('Target.detachedFromTarget', params);
  }

  /** What a client asks of the browser itself and gets for its task space alone. */
  #answers = {
    __proto__: null, // a command may be called as what every object has
    'Target.getBrowserContexts': () => ({ browserContextIds: [this.#space.contextId] }),
    'Target.getTargets': () => ({ targetInfos: [...this.#space.targets.values()] }),
    'Target.setDiscoverTargets': ({ discover }) => {
      this.#discovering = discover === true;
      if (!this.#discovering) return {};
      for (const targetInfo of this.#space.targets.values()) {
        this.#notify('Target.targetCreated', { targetInfo });
      }
      return {};
    },
    'Target.setAutoAttach': async ({ autoAttach }) => {
      this.#attaching = autoAttach === true;
      if (this.#attaching) {
        await Promise.all([...this.#space.targets.values()].map((info) => this.#attachTo(info)));
      }
      return {};
    },
    'Target.attachToTarget': async ({ targetId }) => {
      const targetInfo = this.#space.targets.get(targetId);
      if (!targetInfo) throw new Error('there is no such page in this task space');
      return { sessionId: await this.#attach(targetInfo) };
    },
    'Target.detachFromTarget': ({ sessionId }) => {
      if (!this.#sessions.has(sessionId)) throw new Error('there is no such session');
      this.#detach(sessionId); // its event tells the client, as for any other end
      return {};
    },
    // A page's session hears of that page's downloads only, not of a pop-up's. The browser's hears
    // of those of other task spaces, too; the session is ours, for it can do anything.
    'Browser.setDownloadBehavior': async (params) => {
      const method = 'Browser.setDownloadBehavior';
      const permitted = this.#permitted({ method, params });
      this.#downloads ??= this.#listenToDownloads();
      const sessionId = await this.#downloads;
      return this.#pipe.send(method, permitted, { sessionId, timeout: COMMAND_TIMEOUT });
    },
  };

  #permitted(command) {
    return permittedParams(command, {
      contextId: this.#space.contextId,
      hasTarget: (targetId) => this.#space.targets.has(targetId),
    });
  }

  async #listenToDownloads() {
    const attach = 'Target.attachToBrowserTarget';
    const { sessionId } = await this.#pipe.send(attach, {}, { timeout: COMMAND_TIMEOUT });
    const ours = new Map(); // of each download: whether it is of this task space, to come
    let told = Promise.resolve();
    this.#pipe.listen(sessionId, (method, frame) => {
      if (!method.startsWith('Browser.download')) return;
      const { params } = JSON.parse(frame.text());
      const { guid, frameId } = params;
      if (frameId) ours.set(guid, this.#hasFrame(frameId));
      const isOurs = ours.get(guid);
      if (/^(completed|canceled)$/.test(params.state)) ours.delete(guid);
      told = told.then(async () => (await isOurs) && this.#notify(method, params));
    });
    return sessionId;
  }

  async #answer({ id, params = {} }, answer) {
    try {
      const result = await answer(params);
      this.#channel.relay([Buffer.from(JSON.stringify({ id, result }))]);
    } catch (error) {
      this.#refuse({ id }, error.message);
    }
  }

  // Main frames and frames of other sites are targets; the others only their page knows.
  async #hasFrame(frameId) {
    if (this.#space.targets.has(frameId)) return true;
    for (const [sessionId, parent] of this.#sessions) {
      if (parent !== undefined) continue;
      const limit = { sessionId, timeout: FRAMES_TIMEOUT };
      const tree = await this.#pipe.send('Page.getFrameTree', {}, limit).catch(() => null);
      if (JSON.stringify(tree).includes(`"id":"${frameId}"`)) return true;
    }
    return false;
  }

  #forward(message) {
    this.#pipe.forward(message, (reply) => this.#channel.relay(reply));
    if (this.#pipe.waitForDrain(() => this.#channel.resume())) this.#channel.pause();
  }

  // A pop-up may be gone again before it is attached to: then there is nothing to tell.
  async #attachTo(targetInfo) {
    if (targetInfo.type !== 'page' || targetInfo.subtype) return;
    await this.#attach(targetInfo).catch(() => {});
  }

  async #attach(targetInfo) {
    const { sessionId } = await this.#pipe.send(
      'Target.attachToTarget',
      { targetId: targetInfo.targetId, flatten: true },
      { timeout: COMMAND_TIMEOUT },
    );
    if (this.#channel.closed) {
      this.#detach(sessionId);
      return sessionId;
    }
    this.#adopt(sessionId);
    const latest = this.#space.targets.get(targetInfo.targetId) ?? targetInfo; // its address, too
    const attached = { ...latest, attached: true };
    const params = { sessionId, targetInfo: attached, waitingForDebugger: false };
    this.#notify('Target.attachedToTarget', params);
    return sessionId;
  }

  #adopt(sessionId, parent) {
    this.#sessions.set(sessionId, parent);
    this.#pipe.listen(sessionId, (method, frame) => this.#relayEvent(sessionId, method, frame));
  }

  // Frames of other sites and workers are sessions of their own, told of by the page's.
  #relayEvent(sessionId, method, frame) {
    if (method === 'Target.attachedToTarget') {
      this.#adopt(JSON.parse(frame.text()).params.sessionId, sessionId);
    } else if (method === 'Target.detachedFromTarget') {
      this.#drop(JSON.parse(frame.text()).params.sessionId);
    }
    this.#channel.relay(frame.pieces);
  }

  #drop(sessionId) {
    this.#sessions.delete(sessionId);
    this.#pipe.dropSession(sessionId, 'the page was closed');
    for (const [child, parent] of this.#sessions) {
      if (parent === sessionId) this.#drop(child);
    }
  }

  // For what may be gone already: the browser's refusal changes nothing.
  #detach(sessionId) {
    this.#pipe.send('Target.detachFromTarget', { sessionId }).catch(() => {});
  }

  #notify(method, params) {
    this.#channel.relay([Buffer.from(JSON.stringify({ method, params }))]);
  }

  #refuse({ id, sessionId }, reason) {
    this.#channel.relay([Buffer.from(errorReply(id, reason, sessionId))]);
  }
}
