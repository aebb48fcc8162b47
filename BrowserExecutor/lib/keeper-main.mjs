/**
 * Entry of the keeper process. Started through flock(1), which holds the lock for as long as this
 * process lives, so that there is one keeper a directory.
 */

import { idleExitMilliseconds } from './keeper-settings.mjs';
import { Keeper } from './keeper.mjs';
import { keeperPaths } from './paths.mjs';

process.umask(0o077);

const keeper = new Keeper({
  paths: keeperPaths(process.env),
  env: process.env,
  idleExit: idleExitMilliseconds(process.env),
});
keeper.onEnded = () => process.exit(0);
for (const signal of ['SIGTERM', 'SIGINT', 'SIGHUP']) {
  process.on(signal, () => keeper.end(`it received ${signal}`));
}
await keeper.start();
