/** verdo-browser in a home of its own: its scripts, and what its processes take of the memory. */

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

export class Home {
  #program;

  /** @param {string} program */
  constructor(program) {
    this.#program = program;
    this.root = fs.mkdtempSync(path.join(os.tmpdir(), 'verdo-bench-'));
    this.env = {
      PATH: process.env.PATH,
      HOME: this.root,
      TMPDIR: this.root,
      XDG_RUNTIME_DIR: this.root,
    };
  }

  /**
   * Starts a script. `onOutput` gets the stream of its output, which is collected unless given.
   * @returns {{child: object, ended: Promise<{code: number, stdout: string, stderr: string,
   *   seconds: number}>}}
   */
  start(script, { args = ['nodejs'], onOutput } = {}) {
    const begin = performance.now();
    const child = spawn(this.#program, args, { cwd: this.root, env: this.env });
    const result = { stdout: '', stderr: '' };
    if (onOutput) onOutput(child.stdout);
    else child.stdout.on('data', (text) => (result.stdout += text));
    child.stderr.on('data', (text) => (result.stderr += text));
    child.stdin.on('error', () => {}); // its end tells why
    child.stdin.end(script);
    const ended = new Promise((resolve, reject) => {
      child.once('error', reject);
      child.once('close', (code) =>
        resolve({ ...result, code, seconds: (performance.now() - begin) / 1000 }),
      );
    });
    return { child, ended };
  }

  /** Runs a script that has to succeed. */
  async run(script, options) {
    const result = await this.start(script, options).ended;
    if (result.code !== 0) throw new Error(`a script exited with ${result.code}: ${result.stderr}`);
    return result;
  }

  async stop() {
    await this.run('', { args: ['stop'] });
  }

  async keeper() {
    const { stdout } = await this.run('', { args: ['status'] });
    return Number(/pid (\d+)/.exec(stdout)[1]);
  }

  async remove() {
    await this.stop();
    fs.rmSync(this.root, { recursive: true, force: true, maxRetries: 10, retryDelay: 100 });
  }
}

/** Resident size of a process now and at its highest, MB; zeros once it has ended. */
export function residentSize(pid) {
  const status = textOf(`/proc/${pid}/status`);
  const field = (name) =>
    (Number(new RegExp(`^${name}:\\s+(\\d+)`, 'm').exec(status)?.[1] ?? 0) * 1024) / 1e6;
  return { now: field('VmRSS'), peak: field('VmHWM') };
}

/** What all descendants of a process take together, pages that they share counted once, MB. */
export function familySize(pid) {
  const parents = new Map();
  for (const entry of fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name))) {
    const stat = textOf(`/proc/${entry}/stat`);
    parents.set(Number(entry), Number(stat.slice(stat.lastIndexOf(')') + 2).split(' ')[1]));
  }
  const isBelow = (child) => {
    for (let at = parents.get(child); at > 1; at = parents.get(at)) if (at === pid) return true;
    return false;
  };
  const sizes = [...parents.keys()].filter(isBelow).map((child) => {
    const rollup = textOf(`/proc/${child}/smaps_rollup`);
    return (Number(/^Pss:\s+(\d+)/m.exec(rollup)?.[1] ?? 0) * 1024) / 1e6;
  });
  return sizes.reduce((sum, size) => sum + size, 0);
}

function textOf(file) {
  try {
    return fs.readFileSync(file, 'utf8');
  } catch {
    return ''; // it has just ended
  }
}
