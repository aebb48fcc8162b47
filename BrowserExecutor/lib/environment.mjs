/**
 * What of the caller's environment reaches scripts, the keeper and Chromium. The driver's secrets
 * never do: a page or a script must not be able to read them.
 */

const SECRET = /^VERDO_.*(TOKEN|KEY|SECRET|PASSWORD)/;
const OURS = /^VERDO_/;
const OWN_SETTINGS = /^VERDO_BROWSER_/;

/**
 * Removes the driver's secrets from an environment in place, for the process that runs a script.
 * @param {NodeJS.ProcessEnv} env
 */
export function removeSecrets(env) {
  for (const name of Object.keys(env)) {
    if (SECRET.test(name)) delete env[name];
  }
}

/**
 * The keeper's environment: its own settings, but nothing else of the driver's, and no
 * NODE_OPTIONS, which could open a debugging port in a process that outlives the caller.
 * @param {NodeJS.ProcessEnv} env
 * @returns {NodeJS.ProcessEnv} a copy
 */
export function keeperEnvironment(env) {
  return without(env, (name) => isForeignToKeeper(name) || name === 'NODE_OPTIONS');
}

/**
 * Chromium's environment: nothing of the driver's at all.
 * @param {NodeJS.ProcessEnv} env
 * @returns {NodeJS.ProcessEnv} a copy
 */
export function chromiumEnvironment(env) {
  return without(env, (name) => OURS.test(name));
}

function isForeignToKeeper(name) {
  return SECRET.test(name) || (OURS.test(name) && !OWN_SETTINGS.test(name));
}

function without(env, dropped) {
  return Object.fromEntries(Object.entries(env).filter(([name]) => !dropped(name)));
}
