/** Tells a process from a later one that got its number. */

import { execFileSync } from 'node:child_process';
import fs from 'node:fs';

/**
 * @typedef {object} ProcessIdentity
 * @property {number} pid
 * @property {string} start when it began, in the system's own words
 */

/**
 * @param {number} pid
 * @returns {ProcessIdentity | null} null when there is no such process
 */
export function identify(pid) {
  const start = startOf(pid);
  return start ? { pid, start } : null;
}

/**
 * Kills a process or its group, if it is still the one that was meant.
 * @param {ProcessIdentity | undefined} process
 * @param {{group?: boolean}} [options]
 */
export function killIdentified(meant, { group = false } = {}) {
  if (!meant?.pid || startOf(meant.pid) !== meant.start) return;
  try {
    process.kill(group ? -meant.pid : meant.pid, 'SIGKILL');
  } catch {
    // It has just ended.
  }
}

function startOf(pid) {
  try {
    if (!fs.existsSync('/proc/self/stat')) {
      const ps = ['-o', 'lstart=', '-p', `${pid}`];
      return execFileSync('ps', ps, { encoding: 'utf8' }).trim();
    }
    const stat = fs.readFileSync(`/proc/${pid}/stat`, 'latin1');
    return stat.slice(stat.lastIndexOf(')') + 2).split(' ')[19]; // starttime, of proc(5)
  } catch {
    return '';
  }
}
