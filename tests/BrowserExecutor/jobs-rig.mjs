/** Jobs as the web service gives them: its stand-in, a driver, and a look into their Chromium. */

import assert from 'node:assert/strict';
import { once } from 'node:events';
import fs from 'node:fs';
import path from 'node:path';

import { Processes } from '../../demo/processes.mjs';
import { Service } from '../../demo/service.mjs';
import { PROGRAM, Sandbox, waitFor } from './sandbox.mjs';

const PROGRAMS = path.dirname(PROGRAM);
/** Of the packages that verdo-browser is built with; this node has no web socket of its own. */
const LIBRARY = path.resolve(PROGRAMS, '../BrowserExecutor/npm/node_modules/ws/wrapper.mjs');

/** A service, a sandbox whose Chromium can be looked into, and drivers, one after the other. */
export class JobsRig {
  #processes = new Processes();
  #service;
  #queued = 0;

  static async start(t) {
    const rig = new JobsRig();
    t.after(() => rig.#processes.stopAll()); // before the sandbox is removed
    rig.sandbox = new Sandbox(t);
    const chromium = path.join(rig.sandbox.root, 'chromium');
    const command = 'exec chromium-headless-shell "$@" --remote-debugging-port=0';
    fs.writeFileSync(chromium, `#!/bin/sh\n${command}\n`, { mode: 0o755 });
    rig.sandbox.env.VERDO_BROWSER_CHROMIUM = chromium;
    const local = `${PROGRAMS}/verdo-local-service`;
    rig.#service = await Service.start(rig.#processes, local, 'no-provider-key');
    return rig;
  }

  /** Starts a driver with four lanes that serves once this fulfils. */
  async startDriver() {
    const { url, token } = this.#service;
    // The next job of a lane comes with the next poll.
    const polling = ['--max-jobs', '4', '--poll-wait', '1'];
    const executor = ['--exec', 'verdo-browser nodejs', '--extra-path', PROGRAMS];
    this.log = '';
    this.#processes.start(
      'driver',
      `${PROGRAMS}/verdo-driver`,
      ['--server', url, ...executor, ...polling],
      {
        env: { ...this.sandbox.env, VERDO_DRIVER_TOKEN: token },
        show: (line) => (this.log += `${line}\n`),
      },
    );
    const polls = await this.#service.requestCount('poll');
    const polled = async () => (await this.#service.requestCount('poll')) > polls;
    await waitFor('the driver to poll', polled);
  }

  async stopDriver() {
    assert.equal(await this.#processes.stop('driver'), 130, this.log);
  }

  /** Queues a job, in a lane of its own. `done` gives how it ended and its lines; `printed` waits for the first one. */
  async queue(payload, job = {}) {
    const service = this.#service;
    const id = await service.addJob({ label: `job ${++this.#queued}`, payload, ...job });
    return {
      printed: () => service.waitForLines(id),
      done: async () => {
        const { exit_code: exit, error } = await service.waitUntilDone(id);
        return { exit, error, lines: await service.lines(id) };
      },
    };
  }

  /** Runs a job that has to succeed; gives its lines. */
  async lines(payload, job) {
    const { exit, error, lines } = await (await this.queue(payload, job)).done();
    assert.deepEqual({ exit, error }, { exit: 0, error: null }, `${lines}\n${this.log}`);
    return lines;
  }

  /** What Chromium itself has: the addresses of its pages, and how many contexts beside its own. */
  async chromium() {
    const base = `http://127.0.0.1:${this.#debuggingPort()}/json`;
    const targets = await (await fetch(`${base}/list`)).json();
    const pages = targets.filter(({ type }) => type === 'page').map(({ url }) => url);
    const { webSocketDebuggerUrl } = await (await fetch(`${base}/version`)).json();
    const reply = await askDevTools(webSocketDebuggerUrl, 'Target.getBrowserContexts');
    return { pages, contexts: reply.result.browserContextIds.length };
  }

  #debuggingPort() {
    const { directory } = this.sandbox;
    const profiles = fs.readdirSync(directory).filter((name) => name.startsWith('profile-'));
    assert.equal(profiles.length, 1);
    const file = path.join(directory, profiles[0], 'DevToolsActivePort');
    return fs.readFileSync(file, 'utf8').split('\n')[0];
  }
}

/** The reply to one command over DevTools' web socket. */
async function askDevTools(url, method) {
  const { WebSocket } = await import(LIBRARY);
  const socket = new WebSocket(url);
  await once(socket, 'open');
  socket.send(JSON.stringify({ id: 1, method }));
  const [reply] = await once(socket, 'message');
  socket.terminate();
  return JSON.parse(reply);
}
