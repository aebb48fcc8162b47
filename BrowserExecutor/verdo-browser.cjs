#!/usr/bin/env node
// Old node versions have to parse this file to be told that they are too old.
'use strict';

const NEEDED = 18;
const { node } = process.versions;

if (Number(node.split('.')[0]) < NEEDED) {
  const remedy = 'install a newer one, or put the directory of one first in PATH';
  console.error(`verdo-browser needs node ${NEEDED} or later, this is ${node}: ${remedy}`);
  process.exit(1);
}

import('./lib/cli.mjs').then(({ main }) => main(process.argv.slice(2)));
