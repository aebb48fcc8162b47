/**
 * What is wrong with a script that cannot be compiled. V8 has seen it inside a function of ours, and
 * is misled where the script ends that function; acorn reads the script by itself.
 */

import { parse } from 'acorn';

import { PREFIX } from './script-runner.mjs';

const MODULE_SYNTAX =
  'a script is no module: use await import(...) for import, nothing for export, ' +
  'and process.cwd() for import.meta';
const INCOMPLETE = 'the script ends before it is complete';

/**
 * @param {SyntaxError} error as the compilation gave it
 * @param {string} source the script, without what stands around it
 * @param {string} filename of the script
 * @returns {SyntaxError} `error` itself where it is right; the stack begins with the place
 */
export function explainSyntaxError(error, source, filename) {
  const found = findProblem(source);
  if (!found) return error; // something that only V8 forbids
  const lines = source.split(/\r?\n/);
  const { line, column } = found.loc;
  // Loaders that know module syntax try the text as a module: their message is about our function.
  if (/^'import' and 'export' may|import\.meta/.test(found.message)) {
    return errorAt(filename, lines, line, column, MODULE_SYNTAX);
  }
  if (found.pos === source.length || /^Unterminated (template|comment)/.test(found.message)) {
    const end = source.trimEnd().split('\n').length;
    return errorAt(filename, lines, end, lines[end - 1].length, INCOMPLETE);
  }
  // A brace too many ends our function, and V8 complains about what comes then.
  const v8 = placeOf(error, filename);
  if (source[found.pos] === '}' && !(v8?.line === line && v8.column === column)) {
    return errorAt(filename, lines, line, column, "Unexpected token '}'");
  }
  return error;
}

function findProblem(source) {
  try {
    parse(source, {
      ecmaVersion: 'latest',
      allowHashBang: true,
      allowAwaitOutsideFunction: true,
      allowReturnOutsideFunction: true,
    });
    return null;
  } catch (error) {
    return error;
  }
}

/** Where V8 stopped: its stack begins with the place, the line and a line of carets. */
function placeOf(error, filename) {
  const [place, text = '', carets = ''] = error.stack.split('\n');
  if (!place.startsWith(`${filename}:`)) return null;
  const before = text.startsWith(PREFIX) ? PREFIX.length : 0;
  return { line: Number(place.slice(filename.length + 1)), column: carets.indexOf('^') - before };
}

function errorAt(filename, lines, line, column, message) {
  const error = new SyntaxError(message);
  error.stack = `${filename}:${line}\n${lines[line - 1]}\n${' '.repeat(column)}^`;
  return error;
}
