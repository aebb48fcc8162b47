/** The nodejs command: runs the script on standard input, and decides how the process ends. */

import { eraseSecrets } from './environment.mjs';
import { createScriptApi } from './script-api.mjs';
import { describeScriptError } from './script-errors.mjs';
import { runScript, scriptFilename } from './script-runner.mjs';
import { installScriptStacks } from './script-stacks.mjs';
import { makeOutputSynchronous } from './standard-output.mjs';

/**
 * Reads and runs the script. As with node itself, the process ends when the script has ended and
 * nothing is left to wait for; at the first error it ends at once with status 1.
 * @returns {Promise<void>} fulfils when the script's body has ended
 * @throws {Error} when standard input is no UTF-8 text, or secrets cannot be kept from the script
 */
export async function runNodejs() {
  eraseSecrets();
  makeOutputSynchronous();
  const source = await readScript();
  const directory = process.cwd();
  const filename = scriptFilename(directory);
  installScriptStacks(filename);
  const fail = (error) => failScript(error, filename);
  process.on('uncaughtException', fail); // unhandled rejections included

  // The event loop can run empty under an await: that is no success.
  const stuck = () => fail(new Error('the script waits for something that can no longer happen'));
  process.once('beforeExit', stuck);
  const { globals, close } = createScriptApi({
    env: process.env,
    write: (text) => process.stdout.write(text),
    tell: (text) => process.stderr.write(`verdo-browser: ${text}\n`),
  });
  await runScript(source, { directory, globals }).catch(fail);
  close();
  process.off('beforeExit', stuck);
}

async function readScript() {
  const chunks = [];
  for await (const chunk of process.stdin) chunks.push(chunk);
  try {
    return new TextDecoder('utf-8', { fatal: true }).decode(Buffer.concat(chunks));
  } catch {
    throw new Error('the script on standard input is not UTF-8 text');
  }
}

function failScript(error, filename) {
  process.stderr.write(`${describeScriptError(error, filename)}\n`);
  process.exit(1);
}
