/** Runs a script as node would run a file in the working directory, with top-level await. */

import { Module } from 'node:module';
import path from 'node:path';

/** What stands before the script on its first line, so that its line numbers are its own. */
export const PREFIX = 'return (async () => {';
const SUFFIX = '\n})();';

/**
 * The name that a script has in stack traces; it is no file.
 * @param {string} directory
 */
export function scriptFilename(directory) {
  return path.join(directory, '[script]');
}

/**
 * Runs a script as the body of an async function. require() and import() resolve from `directory`.
 * @param {string} source
 * @param {object} options
 * @param {string} options.directory
 * @param {Record<string, unknown>} options.globals defined on globalThis
 * @returns {Promise<void>} settles when the script's body does, with its error; a syntax error's
 *   stack begins with the place
 */
export async function runScript(source, { directory, globals }) {
  Object.assign(globalThis, globals);
  const filename = scriptFilename(directory);
  const module = new Module(filename);
  module.filename = filename;
  module.paths = Module._nodeModulePaths(directory);
  let result;
  try {
    // node:vm has no import() without a flag or a warning. The module loader's own compile
    // function, which require hooks build upon, gives scripts import, require and module in one.
    result = module._compile(PREFIX + withoutHashbang(source) + SUFFIX, filename);
  } catch (error) {
    if (!(error instanceof SyntaxError)) throw error;
    const { explainSyntaxError } = await import('./script-syntax.mjs');
    throw explainSyntaxError(error, source, filename);
  }
  await result;
}

function withoutHashbang(source) {
  return source.startsWith('#!') ? `//${source}` : source;
}
