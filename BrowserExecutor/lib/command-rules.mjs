/**
 * Which DevTools commands a script may send. What concerns its own pages passes; what concerns the
 * whole browser is limited to the script's task space, or refused.
 */

/** Domains that act on the browser as a whole; of these only the commands below pass. */
const BROWSER_DOMAINS = /^(Browser|Target|SystemInfo|Tethering|Extensions|Cast|DeviceAccess)\./;

/** What a command is limited to. */
const CONTEXT = 'context'; // gets the task space's browser context
const TARGET = 'target'; // its targetId has to be one of the task space
const FREE = 'free';

const COMMANDS = {
  'Browser.getVersion': FREE,
  'Browser.grantPermissions': CONTEXT,
  'Browser.setPermission': CONTEXT,
  'Browser.resetPermissions': CONTEXT,
  'Browser.setDownloadBehavior': CONTEXT,
  'Browser.cancelDownload': CONTEXT,
  'Browser.getWindowForTarget': TARGET,
  'Target.createTarget': CONTEXT,
  'Target.closeTarget': TARGET,
  'Target.activateTarget': TARGET,
  'Target.attachToTarget': TARGET,
  'Target.getTargetInfo': TARGET,
  'Target.autoAttachRelated': TARGET,
};

/** Commands of a page or frame that are harmless on its session and refused on the browser's. */
const ON_SESSIONS = new Set(['Target.setAutoAttach', 'Target.detachFromTarget']);

/** Commands of other domains that the browser takes without a session. */
const WITHOUT_SESSION = {
  __proto__: null, // a command may be called as what every object has
  'Storage.getCookies': CONTEXT,
  'Storage.setCookies': CONTEXT,
  'Storage.clearCookies': CONTEXT,
};

const REMEDIES = {
  __proto__: null,
  'Browser.close': 'completeTaskSpace closes a task space, verdo-browser stop ends the browser',
  'Target.createBrowserContext': 'openTaskSpace opens a task space, which is a context of its own',
  'Target.disposeBrowserContext': 'completeTaskSpace(name, { keep: false }) closes a task space',
};

/**
 * Judges one command of a script.
 * @param {{method: string, params?: object, sessionId?: string}} command
 * @param {object} own what the script may name
 * @param {string} own.contextId the browser context of its task space
 * @param {(targetId: string) => boolean} own.hasTarget whether a target is of its task space
 * @returns {object} the parameters to send
 * @throws {Error} that says why it is refused
 */
export function permittedParams({ method, params = {}, sessionId }, own) {
  const rule = ruleFor(method, sessionId);
  if (rule === undefined) throw refusal(method);
  const itself = sessionId !== undefined && params.targetId === undefined;
  if (rule === TARGET && !itself && !own.hasTarget(params.targetId)) {
    throw new Error(`${method}: there is no such page in this task space`);
  }
  const { browserContextId = own.contextId } = params;
  if (browserContextId !== own.contextId) {
    throw new Error(`${method}: that browser context belongs to another task space`);
  }
  return rule === CONTEXT ? { ...params, browserContextId } : params;
}

function ruleFor(method, sessionId) {
  if (Object.hasOwn(COMMANDS, method)) return COMMANDS[method];
  if (sessionId === undefined) return WITHOUT_SESSION[method];
  return ON_SESSIONS.has(method) || !BROWSER_DOMAINS.test(method) ? FREE : undefined;
}

function refusal(method) {
  const remedy = REMEDIES[method] ?? 'it would act on all task spaces';
  return new Error(`${method} is not for scripts: ${remedy}`);
}
