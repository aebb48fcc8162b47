/** Fixtures: a private home for one test, scripts run in it, and a look at its processes. */

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

const BUILT = fileURLToPath(new URL('../../build/release/bin/verdo-browser', import.meta.url));
export const PROGRAM = process.env.VERDO_BROWSER_PROGRAM ?? BUILT;
const SCRIPT_TIMEOUT = 20_000;

/** Waits until `condition` gives something truthy, and returns it. */
export async function waitFor(what, condition, timeout = 10_000) {
  const deadline = Date.now() + timeout;
  for (;;) {
    const result = await condition();
    if (result) return result;
    assert.ok(Date.now() < deadline, `${what}: not within ${timeout} ms`);
    await sleep(20);
  }
}

/** A home of its own for one test; its keeper ends with the test. */
export class Sandbox {
  /**
   * @param {import('node:test').TestContext} t
   * @param {{uid?: number}} [options] whose home it is, for root; this user's unless given
   */
  constructor(t, { uid } = {}) {
    this.root = fs.mkdtempSync(path.join(os.tmpdir(), 'vb-'));
    this.directory = path.join(this.root, 'verdo-browser');
    this.socket = path.join(this.directory, 'keeper.sock');
    this.temporary = path.join(this.root, 'tmp');
    fs.mkdirSync(this.temporary);
    this.env = {
      PATH: process.env.PATH,
      HOME: this.root,
      TMPDIR: this.temporary,
      XDG_RUNTIME_DIR: this.root,
    };
    this.program = PROGRAM;
    if (uid !== undefined) this.#giveTo(uid);
    t.after(() => this.#cleanUp());
  }

  // With a copy of the program, which may lie where others have no way in.
  #giveTo(uid) {
    this.identity = { uid, gid: uid };
    this.program = this.copyProgram();
    for (const directory of [this.root, this.temporary]) fs.chownSync(directory, uid, uid);
  }

  /** A copy of the program, to be changed. @returns {string} its path */
  copyProgram() {
    const copy = path.join(this.root, 'program');
    fs.cpSync(path.dirname(fs.realpathSync(PROGRAM)), copy, { recursive: true });
    return path.join(copy, path.basename(fs.realpathSync(PROGRAM)));
  }

  /** Starts the program with a script; `result` settles when its output has closed. */
  start(script, { args = ['nodejs'], env = {} } = {}) {
    const child = spawn(process.execPath, [this.program, ...args], {
      ...this.identity,
      cwd: this.root,
      detached: true,
      env: { ...this.env, ...env },
    });
    const run = { child, stdout: '', stderr: '' };
    child.stdout.on('data', (text) => (run.stdout += text));
    child.stderr.on('data', (text) => (run.stderr += text));
    child.stdin.on('error', () => {}); // a usage error ends it before it reads
    child.stdin.end(script);
    run.result = new Promise((resolve, reject) => {
      const late = () => {
        child.kill('SIGKILL');
        reject(new Error(`not ended within ${SCRIPT_TIMEOUT} ms: ${run.stdout}${run.stderr}`));
      };
      const timer = setTimeout(late, SCRIPT_TIMEOUT);
      child.once('close', (code, signal) => {
        clearTimeout(timer);
        resolve({ code, signal, stdout: run.stdout, stderr: run.stderr });
      });
    });
    return run;
  }

  run(script, options) {
    return this.start(script, options).result;
  }

  /** Runs a script that has to succeed; gives its output. */
  async output(script, options) {
    const { code, stdout, stderr } = await this.run(script, options);
    assert.equal(code, 0, stderr);
    return stdout;
  }

  /** Process ids of the keepers of this sandbox. */
  keepers() {
    return processes()
      .filter(({ command, environment }) => {
        const ours = environment.includes(`XDG_RUNTIME_DIR=${this.root}\0`);
        return ours && command.includes('keeper-main.mjs') && !command.startsWith('flock');
      })
      .map(({ pid }) => pid);
  }

  /** The one keeper's process id, those of all its descendants, and of Chromium's main process. */
  family() {
    const keepers = this.keepers();
    assert.equal(keepers.length, 1, 'number of keepers');
    const all = processes();
    const family = all.filter(({ pid }) => pid === keepers[0]);
    for (const { pid } of family) family.push(...all.filter(({ ppid }) => ppid === pid));
    const [keeper, ...browser] = family.map(({ pid }) => pid);
    const isMain = ({ command }) => /^[^\0]*chromium[^\0]*\0--headless/.test(command);
    const main = family.find(isMain)?.pid;
    assert.ok(main, 'the keeper has a browser');
    return { keeper, browser, main };
  }

  async #cleanUp() {
    await this.run('', { args: ['stop'] }).catch(() => {});
    for (const pid of this.keepers()) process.kill(pid, 'SIGKILL');
    await waitFor('the keeper to end', () => this.keepers().length === 0);
    fs.rmSync(this.root, { recursive: true, force: true, maxRetries: 10, retryDelay: 50 });
  }
}

/** Whether a process is there and no zombie. */
export function alive(pid) {
  return processes().some((entry) => entry.pid === pid);
}

function processes() {
  return fs
    .readdirSync('/proc')
    .filter((name) => /^\d+$/.test(name))
    .map((name) => {
      const stat = readProc(`/proc/${name}/stat`);
      const [state, ppid] = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
      return {
        pid: Number(name),
        ppid: Number(ppid),
        state,
        command: readProc(`/proc/${name}/cmdline`),
        environment: readProc(`/proc/${name}/environ`),
      };
    })
    .filter(({ state }) => state && state !== 'Z' && state !== 'X');
}

/** Text of a file under /proc, empty when its process has just ended. */
export function readProc(file) {
  try {
    return fs.readFileSync(file, 'latin1');
  } catch {
    return '';
  }
}

/** The processes that listen on TCP. */
export function listeners() {
  const sockets = execFileSync('ss', ['-Hltnp'], { encoding: 'utf8' });
  return [...sockets.matchAll(/pid=(\d+)/g)].map(([, pid]) => Number(pid));
}

/** An HTTP server on loopback for one test. Gives its origin. */
export async function serve(t, pages) {
  const server = http.createServer((request, response) => {
    const page = pages[request.url];
    if (typeof page === 'function') return page(request, response);
    response.writeHead(page === undefined ? 404 : 200, { 'Content-Type': 'text/html' });
    return response.end(page ?? '<title>missing</title>');
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  t.after(() => {
    server.closeAllConnections();
    server.close();
  });
  return `http://127.0.0.1:${server.address().port}`;
}
