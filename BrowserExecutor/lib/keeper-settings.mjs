/** Settings that the keeper takes from the environment of the script that starts it. */

const DEFAULT_IDLE_EXIT_SECONDS = 60;

/** Longest time that a timer can wait, in milliseconds. */
const MAX_TIMER = 2 ** 31 - 1;

/**
 * How long a keeper without clients and task spaces stays, from VERDO_BROWSER_IDLE_EXIT (seconds).
 * @param {NodeJS.ProcessEnv} env
 * @returns {number} milliseconds
 * @throws {Error} when the variable is set to something else than a number of seconds
 */
export function idleExitMilliseconds(env) {
  const text = env.VERDO_BROWSER_IDLE_EXIT;
  if (!text) return DEFAULT_IDLE_EXIT_SECONDS * 1000;
  const seconds = Number(text);
  if (!(seconds >= 0)) {
    throw new Error(`VERDO_BROWSER_IDLE_EXIT takes a number of seconds, not '${text}'`);
  }
  return Math.min(seconds * 1000, MAX_TIMER);
}
