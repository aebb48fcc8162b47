/**
 * Builds the program that is installed: our modules and the packages that they import, as a few
 * files in one folder, so that it runs without a node_modules.
 *
 * Usage: node bundle.mjs NODE_MODULES PROGRAM DEPFILE
 *
 * Writes PROGRAM/verdo-browser.cjs, PROGRAM/lib/*.mjs and PROGRAM/THIRD-PARTY-LICENSES.txt, and
 * tells in DEPFILE, in make's syntax, which of our files the outcome depends on.
 */

import fs from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { describeLicenses } from './licenses.mjs';

const SOURCES = path.dirname(fileURLToPath(import.meta.url));
const LAUNCHER = 'verdo-browser.cjs';
const ENTRIES = ['cli.mjs', 'keeper-main.mjs'];

/** Packages in CommonJS call require(), which is no function of an ES module. */
const BANNER = [
  'import { createRequire as createRequireForBundle } from "node:module";',
  'const require = createRequireForBundle(import.meta.url);',
].join('\n');

/**
 * What puppeteer-core loads only to start or to find a browser, or to speak another protocol.
 * Ours comes from the keeper: this would be four fifths of the program.
 */
const NEVER_LOADED =
  /^@puppeteer\/browsers$|\/(bidi|LaunchOptions|(Node|Browser)WebSocketTransport)\.js$/;

const withoutNeverLoaded = {
  name: 'without-never-loaded',
  setup(build) {
    build.onResolve({ filter: NEVER_LOADED }, ({ path: name, kind, importer }) => {
      const dropped = kind === 'dynamic-import' && /[\\/]puppeteer-core[\\/]/.test(importer);
      return dropped ? { path: name, namespace: 'never-loaded' } : undefined;
    });
    build.onLoad({ filter: /.*/, namespace: 'never-loaded' }, ({ path: name }) => ({
      contents: `throw new Error(${JSON.stringify(`${name} is no part of verdo-browser`)})`,
    }));
  },
};

async function bundle(nodeModules, outdir) {
  const esbuild = createRequire(path.join(nodeModules, 'esbuild', 'package.json'))('esbuild');
  return esbuild.build({
    absWorkingDir: SOURCES,
    entryPoints: ENTRIES.map((name) => path.join('lib', name)),
    outdir,
    outExtension: { '.js': '.mjs' },
    entryNames: '[name]',
    chunkNames: '[name]-[hash]',
    nodePaths: [nodeModules],
    bundle: true,
    splitting: true,
    platform: 'node',
    format: 'esm',
    target: 'node18',
    banner: { js: BANNER },
    // Names stay: scripts see those of classes, and pages get the text of functions. Short lines
    // keep what node prints of a line that failed readable.
    minifyWhitespace: true,
    minifySyntax: true,
    lineLimit: 120,
    legalComments: 'none',
    plugins: [withoutNeverLoaded],
    metafile: true,
    write: false,
  });
}

/** The files of ours that went in; packages change with the lock file only. */
function ownInputs(metafile, nodeModules) {
  return Object.keys(metafile.inputs)
    .map((name) => path.resolve(SOURCES, name))
    .filter((file) => !file.startsWith(nodeModules) && fs.existsSync(file));
}

async function main([nodeModules, program, depfile]) {
  const lib = path.join(program, 'lib');
  const { outputFiles, metafile } = await bundle(path.resolve(nodeModules), lib);
  const licenses = describeLicenses(metafile, SOURCES);

  fs.rmSync(program, { recursive: true, force: true }); // chunks of an earlier build
  fs.mkdirSync(lib, { recursive: true });
  fs.copyFileSync(path.join(SOURCES, LAUNCHER), path.join(program, LAUNCHER));
  fs.chmodSync(path.join(program, LAUNCHER), 0o755);
  for (const { path: file, contents } of outputFiles) fs.writeFileSync(file, contents);
  fs.writeFileSync(path.join(program, 'THIRD-PARTY-LICENSES.txt'), licenses);

  const escaped = ownInputs(metafile, path.resolve(nodeModules)).map((f) =>
    f.replaceAll(' ', '\\ '),
  );
  fs.writeFileSync(depfile, `${path.join(program, LAUNCHER)}: ${escaped.join(' ')}\n`);
}

await main(process.argv.slice(2));
