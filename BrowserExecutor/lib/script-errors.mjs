/** What the author of a failed script is told. */

import { fileURLToPath } from 'node:url';
import util from 'node:util';

import { PREFIX } from './script-runner.mjs';

const OWN_CODE = fileURLToPath(new URL('..', import.meta.url));

/**
 * @param {unknown} error what the script failed with
 * @param {string} filename of the script, as in its stack traces
 * @returns {string} one line that names the script's line and the error, then what else helps
 */
export function describeScriptError(error, filename) {
  if (!(error instanceof Error)) return `verdo-browser: script threw ${util.inspect(error)}`;
  const stack = inScriptTerms(error.stack ?? '', filename);
  const line = /\bscript:(\d+)/.exec(stack)?.[1];
  const where = line ? `script line ${line}` : 'script';
  const excerpt = stack.startsWith('script:') ? sourceExcerpt(stack) : [];
  const frames = stack.split('\n').filter(isForeignFrame);
  const cause = error.cause === undefined ? [] : [`caused by: ${util.inspect(error.cause)}`];
  const headline = `verdo-browser: ${where}: ${error.name}: ${error.message}`;
  return [headline, ...excerpt, ...frames, ...cause].join('\n');
}

// The first line of the script stands behind our prefix: its columns are moved back.
function inScriptTerms(stack, filename) {
  return stack
    .replaceAll(filename, 'script')
    .replace(/\bscript:1:(\d+)/g, (_, column) => `script:1:${Math.max(1, column - PREFIX.length)}`);
}

// A syntax error's stack begins with the place, the source line and a line of carets.
function sourceExcerpt(stack) {
  const [, source, carets = ''] = stack.split('\n');
  if (source === undefined) return [];
  const shift = source.startsWith(PREFIX) ? PREFIX.length : 0;
  return [`  ${source.slice(shift)}`, `  ${carets.slice(shift)}`];
}

// Neither this program's own functions nor the function around the script help the author.
function isForeignFrame(line) {
  const own = line.includes(OWN_CODE) || line.includes('node:');
  return /^\s+at /.test(line) && !own && !line.includes('Object.<anonymous> (script:');
}
