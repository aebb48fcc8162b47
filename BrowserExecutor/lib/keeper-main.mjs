/**
 * Entry of the keeper process. Started through flock(1), which holds the lock for as long as this
 * process lives, so that there is one keeper a directory. Whoever started it reads standard error
 * for as long as it starts.
 */

import { idleExitMilliseconds } from './keeper-settings.mjs';
import { Keeper } from './keeper.mjs';
import { keeperPaths } from './paths.mjs';

/** What the user can do about the system's refusals. */
const REMEDIES = {
  EACCES: 'set XDG_RUNTIME_DIR to a directory of your own',
  EDQUOT: 'free some space, or set XDG_RUNTIME_DIR to a directory elsewhere',
  ENOSPC: 'free some space, or set XDG_RUNTIME_DIR to a directory elsewhere',
  EROFS: 'set XDG_RUNTIME_DIR to a directory that can be written to',
};

process.umask(0o077);
process.stderr.on('error', () => {}); // the reader is gone, or never was

try {
  const keeper = new Keeper({
    paths: keeperPaths(process.env),
    env: process.env,
    idleExit: idleExitMilliseconds(process.env),
  });
  // A script that has not come in time to hear of it reads it here, and tries no other keeper.
  keeper.onEnded = (failure) => (failure ? fail(failure) : process.exit(0));
  for (const signal of ['SIGTERM', 'SIGINT', 'SIGHUP']) {
    process.on(signal, () => keeper.end(`it received ${signal}`));
  }
  await keeper.start();
} catch (error) {
  const remedy = REMEDIES[error.code];
  fail(remedy ? `${error.message}: ${remedy}` : error.message);
}

function fail(text) {
  process.stderr.write(`${text}\n`, () => process.exit(1));
}
