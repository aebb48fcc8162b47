/** What the author of a failed script is told. */

import util from 'node:util';

import { PREFIX } from './script-runner.mjs';

/**
 * @param {unknown} error what the script failed with
 * @param {string} filename of the script, as in its stack traces
 * @returns {string} one line that names the script's line and the error, then what else helps
 */
export function describeScriptError(error, filename) {
  if (!util.types.isNativeError(error) && !(error instanceof Error)) {
    return `verdo-browser: script threw ${util.inspect(error)}`;
  }
  const stack = `${error.stack ?? ''}`.replaceAll(filename, 'script');
  const line = /^(?:\s+at .*\b)?script:(\d+)/m.exec(stack)?.[1];
  const where = line ? `script line ${line}` : 'script';
  const frames = stack.split('\n').filter((text) => /^\s+at /.test(text));
  const causes = [error.cause, ...[error.errors ?? []].flat()].filter((one) => one !== undefined);
  const cause = causes.map((one) => `caused by: ${util.inspect(one)}`);
  const headline = `verdo-browser: ${where}: ${error.name}: ${error.message}`;
  return [headline, ...sourceExcerpt(stack), ...frames, ...cause].join('\n');
}

// A syntax error's stack begins with the place, the source line and a line of carets.
function sourceExcerpt(stack) {
  const [place, source = '', carets = ''] = stack.split('\n');
  if (!/:\d+$/.test(place) || !/^\s*\^/.test(carets)) return [];
  const shift = source.startsWith(PREFIX) ? PREFIX.length : 0;
  const excerpt = [`  ${source.slice(shift)}`, `  ${carets.slice(shift)}`];
  return place.startsWith('script:') ? excerpt : [place, ...excerpt];
}
