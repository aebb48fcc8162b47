/** Spawns a process that shares no session, working directory or descriptor with us, but one. */

import { spawn } from 'node:child_process';
import fs from 'node:fs';

const CLOSE_ON_EXEC = 0o2000000;

/**
 * @param {string} program
 * @param {string[]} args
 * @param {NodeJS.ProcessEnv} env
 * @returns {import('node:child_process').ChildProcess} its standard error is a pipe that we read,
 *   the other standard streams are /dev/null; it does not keep this process alive
 */
export function spawnDetached(program, args, env) {
  const nowhere = fs.openSync('/dev/null', 'r+');
  try {
    const stdio = ['ignore', 'ignore', 'pipe'];
    for (const descriptor of inheritedDescriptors()) {
      while (stdio.length < descriptor) stdio.push('ignore');
      stdio[descriptor] = nowhere;
    }
    const child = spawn(program, args, { cwd: '/', detached: true, env, stdio });
    child.unref();
    return child;
  } finally {
    fs.closeSync(nowhere);
  }
}

/**
 * Descriptors that our caller left open for us and that a child of ours would get too: whoever
 * reads the other end of such a pipe would wait for the child's end.
 * @returns {number[]} ascending, above standard error; empty where the system has no /proc
 */
function inheritedDescriptors() {
  const folder = '/proc/self/fdinfo';
  if (!fs.existsSync(folder)) return [];
  return fs
    .readdirSync(folder)
    .map(Number)
    .filter((descriptor) => descriptor > 2 && isInherited(`${folder}/${descriptor}`))
    .sort((a, b) => a - b);
}

function isInherited(info) {
  try {
    const flags = /^flags:\s+(\d+)/m.exec(fs.readFileSync(info, 'utf8'))?.[1];
    return (parseInt(flags, 8) & CLOSE_ON_EXEC) === 0;
  } catch {
    return false; // the descriptor that listed the folder is closed again
  }
}
