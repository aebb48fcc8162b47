/**
 * Stacks as the author of a script reads them: the script is called `script`, and there is nothing
 * but its frames and those of the author's own modules.
 */

import { PREFIX } from './script-runner.mjs';

const OWN_CODE = new URL('.', import.meta.url).href;

/** Frames that are looked at, since many may be ours, and shown of them (node's own limit). */
const CAPTURED = 60;
const SHOWN = 10;

/**
 * Makes all errors of this process have such stacks.
 * @param {string} filename of the script
 */
export function installScriptStacks(filename) {
  Error.stackTraceLimit = CAPTURED;
  Error.prepareStackTrace = (error, sites) => {
    const frames = sites.filter((site) => isAuthors(site, filename));
    const limit = Error.stackTraceLimit === CAPTURED ? SHOWN : Error.stackTraceLimit;
    const lines = frames
      .slice(0, limit)
      .map((site) => `    at ${inScriptTerms(`${site}`, filename)}`);
    return [headline(error), ...lines].join('\n');
  };
}

// On the script's first line, which stands behind our prefix, columns are moved back.
function inScriptTerms(text, filename) {
  return text
    .replaceAll(filename, 'script')
    .replace(/\bscript:1:(\d+)/g, (_, column) => `script:1:${Math.max(1, column - PREFIX.length)}`);
}

function isAuthors(site, filename) {
  if (site.isEval()) return true;
  const file = site.getFileName();
  if (!file || file.startsWith('node:') || file.startsWith(OWN_CODE)) return false;
  const isAroundScript = file === filename && `${site}`.startsWith('Object.<anonymous> ');
  return !isAroundScript;
}

function headline(error) {
  try {
    return Error.prototype.toString.call(error);
  } catch {
    return 'Error'; // its name or message is a getter that throws
  }
}
