/** The command line: options, commands, exit status. */

import { VERSION } from './version.mjs';

const USAGE = `Usage: verdo-browser COMMAND

  nodejs          run the script on standard input, with a headless browser at hand
  login [NAME]    open a window to log in to sites: for the task space NAME, or for all new ones
  forget [NAME]   forget what was logged in to
  list            the task spaces
  close NAME      close a task space
  status          tell whether the browser runs, and its task spaces
  stop            end the browser and all task spaces

  --version       show the version and end
  --help          show this and end

A script is JavaScript for node, with top-level await and these functions:
  openTaskSpace(name, {viewport, userAgent, locale, timezone, downloads}) gives a page
  listTaskSpaces(), completeTaskSpace(name, {keep}), cliLog(...values)

Environment:
  VERDO_BROWSER_CHROMIUM   Chromium to use instead of chromium-headless-shell or chromium
  VERDO_BROWSER_IDLE_EXIT  seconds after which an unused browser ends (60)
  XDG_RUNTIME_DIR          where the browser's socket is, in verdo-browser (~/.cache/verdo/browser)
  XDG_STATE_HOME           where logins are kept, in verdo-browser (~/.local/state)

Exit status: 0 done, 1 the command or the script failed, 2 bad usage.
`;

/** Of each command: what runs it, and how many arguments it takes. */
const COMMANDS = {
  nodejs: { run: runStandardInput, least: 0, most: 0 },
  login: { run: keeperCommand('login'), least: 0, most: 1 },
  forget: { run: keeperCommand('forget'), least: 0, most: 1 },
  list: { run: keeperCommand('list'), least: 0, most: 0 },
  close: { run: keeperCommand('close'), least: 1, most: 1 },
  status: { run: keeperCommand('status'), least: 0, most: 0 },
  stop: { run: keeperCommand('stop'), least: 0, most: 0 },
  '--help': { run: async () => print(USAGE), least: 0, most: 0 },
  '--version': { run: async () => print(`verdo-browser ${VERSION}\n`), least: 0, most: 0 },
};

/**
 * Runs one command and sets the exit status: 0 for success, 1 for a failure, 2 for a usage error.
 * @param {string[]} args without node and the program
 * @returns {Promise<void>}
 */
export async function main(args) {
  const problem = usageProblem(args);
  if (problem) {
    process.stderr.write(`verdo-browser: ${problem} (see verdo-browser --help)\n`);
    process.exitCode = 2;
    return;
  }
  try {
    const [command, ...rest] = args;
    await COMMANDS[command].run(...rest);
  } catch (error) {
    tell(error.message);
    process.exitCode = 1;
  }
}

function usageProblem([command, ...rest]) {
  if (command === undefined) return 'a command is missing';
  if (!Object.hasOwn(COMMANDS, command)) return `there is no command '${command}'`;
  const { least, most } = COMMANDS[command];
  if (rest.length < least) return `${command} takes the name of a task space`;
  if (rest.length > most) return `${command} takes no argument '${rest[most]}'`;
  return null;
}

// Loaded here, not above: a script should start without reading what other commands need.
async function runStandardInput() {
  const { runNodejs } = await import('./nodejs-command.mjs');
  await runNodejs();
}

function keeperCommand(name) {
  return async (...args) => {
    const commands = await import('./keeper-commands.mjs');
    print(await commands[name]({ env: process.env, tell }, ...args));
  };
}

function print(text) {
  process.stdout.write(text);
}

function tell(text) {
  process.stderr.write(`verdo-browser: ${text}\n`);
}
