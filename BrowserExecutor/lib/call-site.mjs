/** Errors of the page API point at the line of the script that called it. */

/**
 * Runs one API operation. An error that it rejects with gets the stack of the API call, since the
 * place where a reply happened to arrive means nothing to the script's author.
 * @template T
 * @param {Function} method the API function; the stack begins above it
 * @param {() => Promise<T>} operation
 * @returns {Promise<T>}
 */
export async function atCallSite(method, operation) {
  const site = {};
  Error.captureStackTrace(site, method);
  try {
    return await operation();
  } catch (error) {
    const frames = site.stack.split('\n').filter((line) => /^\s+at /.test(line));
    error.stack = [`${error.name}: ${error.message}`, ...frames].join('\n');
    throw error;
  }
}
