/** How cliLog() shows values. */

import util from 'node:util';

/**
 * @param {...unknown} values
 * @returns {string} the values with a blank between them: texts as they are, without placeholders
 *   of any kind, others as console.log() shows them
 */
export function formatValues(...values) {
  return values.map((value) => (typeof value === 'string' ? value : util.inspect(value))).join(' ');
}
