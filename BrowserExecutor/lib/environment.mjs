/**
 * What of the caller's environment reaches scripts, the keeper and Chromium. The driver's secrets
 * never do: a page or a script must not be able to read them.
 */

import fs from 'node:fs';

const SECRET = /^VERDO_.*(TOKEN|KEY|SECRET|PASSWORD)/;
const OURS = /^VERDO_/;
const OWN_SETTINGS = /^VERDO_BROWSER_/;

/**
 * Takes the driver's secrets out of this process, before a script runs in it: out of process.env,
 * and out of the memory that the system shows as /proc/PID/environ.
 * @throws {Error} when they are still seen there
 */
export function eraseSecrets() {
  const names = Object.keys(process.env).filter((name) => SECRET.test(name));
  if (names.length === 0) return;
  for (const name of names) delete process.env[name];
  let reason = 'it does not change';
  try {
    eraseFromOwnMemory();
  } catch (error) {
    reason = error.message;
  }
  if (secretEntries(shownEnvironment()).length > 0) {
    throw new Error(`cannot take ${names.join(', ')} out of /proc/self/environ: ${reason}`);
  }
}

/**
 * The keeper's environment: its own settings, but nothing else of the driver's, and no
 * NODE_OPTIONS, which could open a debugging port in a process that outlives the caller.
 * @param {NodeJS.ProcessEnv} env
 * @returns {NodeJS.ProcessEnv} a copy
 */
export function keeperEnvironment(env) {
  return without(env, (name) => isForeignToKeeper(name) || name === 'NODE_OPTIONS');
}

/**
 * Chromium's environment: nothing of the driver's at all.
 * @param {NodeJS.ProcessEnv} env
 * @returns {NodeJS.ProcessEnv} a copy
 */
export function chromiumEnvironment(env) {
  // Where names of files are not UTF-8, it would call a download of any other letters "download".
  return { ...without(env, (name) => OURS.test(name)), LC_CTYPE: 'C.UTF-8' };
}

function isForeignToKeeper(name) {
  return SECRET.test(name) || (OURS.test(name) && !OWN_SETTINGS.test(name));
}

function without(env, dropped) {
  return Object.fromEntries(Object.entries(env).filter(([name]) => !dropped(name)));
}

/** Fields env_start and env_end of /proc/self/stat, counted from 0, behind the name in brackets. */
const ENVIRONMENT_START = 47;
const ENVIRONMENT_END = 48;

function eraseFromOwnMemory() {
  const stat = fs.readFileSync('/proc/self/stat', 'latin1');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  const [start, end] = [ENVIRONMENT_START, ENVIRONMENT_END].map((i) => Number(fields[i]));
  const memory = fs.openSync('/proc/self/mem', 'r+');
  try {
    const area = Buffer.alloc(end - start);
    fs.readSync(memory, area, 0, area.length, start);
    for (const { from, length } of secretEntries(area.toString('latin1'))) {
      fs.writeSync(memory, Buffer.alloc(length), 0, length, start + from);
    }
  } finally {
    fs.closeSync(memory);
  }
}

/** What everybody sees of this process's environment; nothing on a system without /proc. */
function shownEnvironment() {
  try {
    return fs.readFileSync('/proc/self/environ', 'latin1');
  } catch {
    return '';
  }
}

/** Where secrets stand in an environment, one byte a character. */
function secretEntries(environment) {
  const entries = [];
  let from = 0;
  for (const entry of environment.split('\0')) {
    if (SECRET.test(entry.split('=', 1)[0])) entries.push({ from, length: entry.length });
    from += entry.length + 1;
  }
  return entries;
}
