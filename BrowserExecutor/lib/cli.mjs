/** The command line: options, commands, exit status. */

import { VERSION } from './version.mjs';

const USAGE = `Usage: verdo-browser COMMAND

  nodejs    run the script on standard input, with a headless browser at hand
  status    tell whether the browser runs, and its task spaces
  stop      end the browser and all task spaces

  --help, --version

A script is JavaScript for node, with top-level await and these functions:
  openTaskSpace(name), listTaskSpaces(), completeTaskSpace(name, {keep}), cliLog(text)

Environment:
  VERDO_BROWSER_CHROMIUM   Chromium to use instead of chromium-headless-shell or chromium
  VERDO_BROWSER_IDLE_EXIT  seconds after which an unused browser ends (60)
  XDG_RUNTIME_DIR          where the browser's socket is, in verdo-browser (~/.cache/verdo/browser)
`;

const COMMANDS = {
  nodejs: runStandardInput,
  status: printStatus,
  stop: stopKeeper,
  '--help': async () => print(USAGE),
  '--version': async () => print(`verdo-browser ${VERSION}\n`),
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
    await COMMANDS[args[0]]();
  } catch (error) {
    process.stderr.write(`verdo-browser: ${error.message}\n`);
    process.exitCode = 1;
  }
}

function usageProblem([command, ...rest]) {
  if (command === undefined) return 'a command is missing';
  if (!Object.hasOwn(COMMANDS, command)) return `there is no command '${command}'`;
  if (rest.length > 0) return `${command} takes no argument '${rest[0]}'`;
  return null;
}

// Loaded here, not above: a script should start without reading what other commands need.
async function runStandardInput() {
  const { runNodejs } = await import('./nodejs-command.mjs');
  await runNodejs();
}

async function printStatus() {
  const { status } = await import('./keeper-commands.mjs');
  print(await status(process.env));
}

async function stopKeeper() {
  const { stop } = await import('./keeper-commands.mjs');
  print(await stop(process.env));
}

function print(text) {
  process.stdout.write(text);
}
