/** Navigates a page and waits until the document has loaded. */

/**
 * @param {import('./page-session.mjs').PageSession} session with the Page domain and its
 *   lifecycle events enabled
 * @param {string} url
 * @param {number} timeout milliseconds for the whole navigation
 * @returns {Promise<void>} fulfils at the load event; rejects with the network's error, when the
 *   page goes away, and when the time is over (loading is stopped then)
 */
export async function navigate(session, url, timeout) {
  const watcher = new LoadWatcher(session);
  let timer;
  const late = new Promise((_, reject) => {
    const expire = () => reject(new Error(`goto ${url}: not loaded within ${timeout} ms`));
    timer = setTimeout(expire, timeout);
  });
  const loaded = async () => {
    const reply = await session.send('Page.navigate', { url }, { timeout: Infinity });
    if (reply.errorText) throw new Error(`goto ${url}: ${reply.errorText}`);
    // Without a loader the document stayed: only the fragment has changed.
    if (reply.loaderId) await watcher.loaded(reply.frameId, reply.loaderId);
  };
  try {
    await Promise.race([loaded(), late, session.gone]);
  } catch (error) {
    session.send('Page.stopLoading').catch(() => {}); // the page may be gone
    throw error;
  } finally {
    clearTimeout(timer);
    watcher.close();
  }
}

/**
 * Collects load events from before a navigation is asked for, since they may arrive before the
 * reply that says which document they belong to.
 */
class LoadWatcher {
  #events = [];
  #check = () => {};

  constructor(session) {
    this.close = session.on('Page.lifecycleEvent', (event) => {
      this.#events.push(event);
      this.#check();
    });
  }

  /**
   * Waits for the load event of a document, or of one that has taken its place: a page may move on
   * by script before it has loaded.
   */
  loaded(frameId, loaderId) {
    return new Promise((resolve) => {
      this.#check = () => {
        const ofFrame = this.#events.filter((event) => event.frameId === frameId);
        const first = ofFrame.findIndex((event) => event.loaderId === loaderId);
        if (first < 0) return;
        if (ofFrame.slice(first).some((event) => event.name === 'load')) resolve();
      };
      this.#check();
    });
  }
}
