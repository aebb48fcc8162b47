/** Which client owns which DevTools session, and what happens when either goes. */

export class SessionTable {
  #pipe;
  #sessions = new Map();

  /** @param {() => import('./devtools-pipe.mjs').DevToolsPipe} pipe gives the browser's pipe */
  constructor(pipe) {
    this.#pipe = pipe;
  }

  /**
   * Gives a client a session of its own with a page.
   * @param {import('./client-channel.mjs').ClientChannel} channel
   * @param {string} targetId
   * @returns {Promise<string>} session id
   */
  async attach(channel, targetId) {
    const { sessionId } = await this.#pipe().send(
      'Target.attachToTarget',
      { targetId, flatten: true },
      { timeout: 20_000 },
    );
    this.#sessions.set(sessionId, { channel, targetId });
    if (channel.closed) this.#detach(sessionId);
    return sessionId;
  }

  /** Whether the session is this client's. */
  owns(channel, sessionId) {
    return this.#sessions.get(sessionId)?.channel === channel;
  }

  /** Detaches every session of a client that is gone; the browser stops working for it. */
  release(channel) {
    for (const [sessionId, session] of this.#sessions) {
      if (session.channel === channel) this.#detach(sessionId);
    }
  }

  /** Hands the browser's events to the clients that they concern. @param {object} message */
  handleEvent({ method, params, sessionId }) {
    if (sessionId !== undefined) {
      const owner = this.#sessions.get(sessionId)?.channel;
      owner?.notify({ event: 'devtools', session: sessionId, method, params });
    } else if (method === 'Target.detachedFromTarget') {
      this.#drop(params.sessionId, 'the page was closed');
    } else if (method === 'Target.targetCrashed') {
      this.#dropCrashed(params.targetId);
    }
  }

  // A crashed page answers nothing any more: it is closed, and the next open makes a fresh one.
  #dropCrashed(targetId) {
    for (const [sessionId, session] of this.#sessions) {
      if (session.targetId === targetId) this.#drop(sessionId, 'the page crashed');
    }
    this.#tell('Target.closeTarget', { targetId });
  }

  #drop(sessionId, reason) {
    const session = this.#sessions.get(sessionId);
    if (!session) return;
    this.#sessions.delete(sessionId);
    this.#pipe().dropSession(sessionId, reason);
    session.channel.notify({ event: 'detached', session: sessionId, reason });
  }

  #detach(sessionId) {
    this.#sessions.delete(sessionId);
    this.#pipe().dropSession(sessionId, 'the client is gone');
    this.#tell('Target.detachFromTarget', { sessionId });
  }

  // For what may be gone already: the browser's refusal changes nothing.
  #tell(method, params) {
    this.#pipe()
      .send(method, params)
      .catch(() => {});
  }
}
